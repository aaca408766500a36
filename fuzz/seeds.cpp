// Writes hand-made seeds, one directory for each target, below the directory that is named:
//   fuzz_seeds fuzz/corpus
// Seeds of real traffic are made by fuzz/record.
#include "fuzz/Seeds.h"

#include <zlib.h>

#include "remote/channel/Channel.h"
#include "wire/UsbipServer.h"

namespace {

std::string compressed_forward(std::uint32_t devid, const std::string& pdu) {
    std::string deflated(compressBound(pdu.size()), '\0');
    uLongf size = deflated.size();
    compress(reinterpret_cast<Bytef*>(deflated.data()), &size,
             reinterpret_cast<const Bytef*>(pdu.data()), pdu.size());
    deflated.resize(size);
    return ForwardMessage(devid, deflated, static_cast<std::uint32_t>(pdu.size()));
}

// A forward that claims one byte more than its message has.
std::string forward_too_short(const std::string& pdu) {
    std::string message = ForwardMessage(1, pdu);
    const auto claimed = static_cast<std::uint32_t>(pdu.size() + kForwardFiller + 1);
    return message.replace(offsetof(usbip_forward, datasize), sizeof claimed, Bytes(claimed));
}

void host_stream() {
    const std::string reply = SubmitReply(1, 18, std::string(18, 'd'));
    const std::string start = VersionRequest(kVersionFlagCompress) + MapMessage(2);
    const std::string large = SubmitReply(2, 8000, std::string(8000, 'd'));
    seed("host_stream", "session",
         byte(0) + start + ForwardMessage(1, reply) + ForwardMessage(2, UnlinkReply(3)) +
             UnmapMessage(2));
    seed("host_stream", "byte-by-byte", byte(1) + VersionRequest(0) + ForwardMessage(1, reply));
    seed("host_stream", "compressed",
         byte(0) + VersionRequest(kVersionFlagCompress) + compressed_forward(1, large));
    seed("host_stream", "mapped-again", byte(7) + MapMessage(1, DeviceInfo(5)) + UnmapMessage(1));
    seed("host_stream", "shorter-than-it-says", byte(0) + forward_too_short(reply));
    seed("host_stream", "unknown-message", byte(0) + Message(9, "body") + UnmapMessage(7));
}

void kernel_bytes() {
    const std::string commands = SubmitIn(1, 64) + SubmitOut(2, std::string(31, 'c')) + Unlink(1);
    seed("kernel_bytes", "commands", commands);
    seed("kernel_bytes", "isochronous", SubmitOut(3, std::string(192, 'a'), 6) + SubmitIn(4, 8));
    seed("kernel_bytes", "cut-off", commands + SubmitOut(5, std::string(100, 'd')).substr(0, 80));
    seed("kernel_bytes", "reply-instead", SubmitIn(1, 8) + UnlinkReply(1) + SubmitIn(2, 8));
}

void peer_pdus() {
    const std::string in_reply = SubmitReply(9, 31, std::string(31, 'd'));
    seed("peer_pdus", "replies",
         block(SubmitReply(1, 4)) + block(in_reply) + block(UnlinkReply(5)));
    seed("peer_pdus", "isochronous",
         block(SubmitReply(2, 4, {}, 2)) + block(SubmitReply(8, 64, std::string(64, 'a'), 2)));
    seed("peer_pdus", "answered-twice", block(SubmitReply(1, 4)) + block(SubmitReply(1, 4)));
    seed("peer_pdus", "command-instead", block(UnlinkReply(5)) + block(Unlink(5)));
    seed("peer_pdus", "longer-than-it-says",
         block(UnlinkReply(5) + "more") + block(UnlinkReply(6)));
}

void vhci_status() {
    const std::string head = "hub port sta spd dev      sockfd local_busid";
    const std::string free = "\nhs  0000 004 000 00000000 000000 0-0";
    const std::string used = "\nhs  0001 006 003 00010004 000005 1-1";
    const std::string super = "\nss  0002 005 000 00000000 000000 0-0";
    const auto nul = byte(0);
    const std::string attributes = "480" + nul + "00" + nul + "00" + nul + "00" + nul + "1d6b" +
                                   nul + "0104" + nul + "0100" + nul + " 1" + nul + "1" + nul +
                                   " 1" + nul + "5";
    seed("vhci_status", "all-free", "8" + nul + nul + nul);
    seed("vhci_status", "one-used",
         "8" + nul + head + free + used + super + nul + nul + attributes);
    seed("vhci_status", "device-without-attributes", "8" + nul + head + used + nul + nul);
    seed("vhci_status", "port-outside", "1" + nul + head + free + used + nul);
    seed("vhci_status", "no-such-device",
         "8" + nul + head + used.substr(0, used.size() - 3) + "7-7");
}

std::string setup(int type, int request, int value, int length) {
    return byte(type) + byte(request) + half(static_cast<std::size_t>(value)) + half(0) +
           half(static_cast<std::size_t>(length));
}
std::string read10(char operation, int block_number, int blocks) {
    return {operation, 0, 0, 0, 0, static_cast<char>(block_number), 0, 0, static_cast<char>(blocks),
            0};
}
std::string cbw(std::uint32_t length, int direction, std::string command) {
    const auto size = static_cast<int>(command.size());
    command.resize(16);
    return word(length) + byte(direction) + byte(size) + command;
}

void remote_channel() {
    const auto control = [](std::uint32_t seqnum, const std::string& bytes, std::uint32_t length) {
        std::string pdu = SubmitIn(seqnum, length);
        if ((bytes[0] & 0x80) == 0) pdu = SubmitOut(seqnum, "");
        return ForwardMessage(1, pdu.replace(40, 8, bytes));
    };
    const auto bulk = [](std::string pdu, int endpoint) {
        pdu[19] = static_cast<char>(endpoint);
        return pdu;
    };
    const std::string start =
        control(1, setup(0x80, 6, 0x0100, 18), 18) + control(2, setup(0, 9, 1, 0), 0);
    const std::string command = "USBCtag." + cbw(1024, 0x80, read10(0x28, 0, 2));
    const std::string with_lun = command.substr(0, 13) + byte(0) + command.substr(13);
    seed("remote_channel", "disk-is-read",
         byte(0) + start + ForwardMessage(1, bulk(SubmitOut(3, with_lun), 2)) +
             ForwardMessage(1, bulk(SubmitIn(4, 1024), 1)) +
             ForwardMessage(1, bulk(SubmitIn(5, 13), 1)));
    seed("remote_channel", "compressed",
         byte(1) + start + compressed_forward(1, bulk(SubmitOut(3, std::string(8192, 'd')), 2)));
    seed("remote_channel", "shorter-than-it-says",
         byte(0) + forward_too_short(SubmitOut(3, "data.").substr(0, sizeof(usbip_header))));
    seed("remote_channel", "device-ends",
         byte(2) + Message(kUsbipVersionRsp, word(3)) + UnmapMessage(1) + UnmapMessage(2));
    seed("remote_channel", "unlinked",
         byte(0) + start + ForwardMessage(1, bulk(SubmitIn(3, 13), 1)) +
             ForwardMessage(1, Unlink(3)) + ForwardMessage(2, Unlink(3)));
}

void usbip_server() {
    usbip_op_device device{};
    std::strcpy(device.busid, "1-1");
    device.busnum = htobe32(3);
    device.devnum = htobe32(9);
    device.speed = htobe32(3);
    device.interfaces = 1;
    const auto head = [](UsbipOperation code, std::uint32_t status) {
        const usbip_op_header bytes{htobe16(kUsbipServerVersion), htobe16(code), htobe32(status)};
        return Bytes(bytes);
    };
    const std::string listed = Bytes(device) + std::string{3, 1, 1, 0};
    seed("usbip_server", "list",
         byte(0) + byte(50) + head(OP_REP_DEVLIST, 0) + word(htobe32(2)) + listed + listed);
    seed("usbip_server", "import", byte(1) + byte(255) + head(OP_REP_IMPORT, 0) + Bytes(device));
    seed("usbip_server", "refused", byte(1) + byte(3) + head(OP_REP_IMPORT, USBIP_ST_DEV_BUSY));
    const auto submit = [](bool in, std::size_t length, int packets) {
        return byte(0) + byte(in ? 1 : 0) + half(length) + byte(packets);
    };
    const auto server = [](const std::string& bytes) { return byte(2) + block(bytes); };
    seed("usbip_server", "traffic",
         byte(2) + submit(true, 8, 0) + submit(false, 4, 0) + submit(true, 64, 2) +
             server(SubmitReply(1, 8, "datadata") + SubmitReply(2, 4)) +
             server(SubmitReply(3, 5, "data.", 2)));
    seed("usbip_server", "unlink-wins",
         byte(2) + submit(true, 8, 0) + byte(1) + byte(1) + server(UnlinkReply(2)) +
             server(SubmitReply(1, 8, "datadata")));
    seed("usbip_server", "reply-wins",
         byte(2) + submit(true, 8, 0) + byte(1) + byte(1) +
             server(SubmitReply(1, 8, "datadata") + UnlinkReply(2)));
}

void disk_commands() {
    const auto control = [](const std::string& bytes, std::size_t length) {
        return byte(0) + bytes + half(length);
    };
    const auto data_in = [](std::uint32_t length) { return byte(3) + word(length) + byte(0); };
    const auto run = [&](std::uint32_t length, int direction, const std::string& command) {
        return byte(1) + cbw(length, direction, command);
    };
    const std::string status = data_in(13);
    seed("disk_commands", "descriptors",
         byte(1) + control(setup(0x80, 6, 0x0100, 18), 18) + control(setup(0x80, 6, 0x0200, 9), 9) +
             control(setup(0x80, 6, 0x0302, 255), 255) + control(setup(0x80, 6, 0x0F00, 64), 64));
    seed("disk_commands", "inquiry-and-capacity",
         byte(0) + run(36, 0x80, {0x12, 0, 0, 0, 36, 0}) + data_in(36) + status +
             run(8, 0x80, {0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}) + data_in(8) + status +
             run(192, 0x80, {0x1A, 0, 0x3F, 0, static_cast<char>(192), 0}) + data_in(192) + status);
    seed("disk_commands", "write-and-read",
         byte(0) + run(1024, 0, read10(0x2A, 3, 2)) + byte(2) + half(1024) + status +
             run(1024, 0x80, read10(0x28, 3, 2)) + data_in(512) + data_in(512) + status);
    seed("disk_commands", "short-data-then-unlink",
         byte(0) + data_in(512) + byte(4) + byte(1) + run(512, 0x80, {0x12, 1, 0, 0, 64, 0}) +
             data_in(512) + control(setup(0x02, 1, 0, 0), 0) + status);
    seed("disk_commands", "invalid-command",
         byte(0) + byte(2) + half(30) + control(setup(0x21, 0xFF, 0, 0), 0) +
             control(setup(0x02, 1, 0, 0), 0));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    corpus = argv[1];
    for (const auto& write_seeds : {host_stream, kernel_bytes, peer_pdus, vhci_status,
                                    remote_channel, usbip_server, disk_commands}) {
        write_seeds();
    }
    return 0;
}
