// What a USB/IP server sends. The first byte chooses: 0 the reply to a list request, 1 the reply to
// an import; these take the rest, in pieces of as many bytes as the second byte says. 2: commands
// of the host and bytes of the server in turns. The host gets only what its kernel has room for.
#include <map>
#include <string>

#include "fuzz/Target.h"
#include "remote/bridge/DeviceTable.h"
#include "remote/bridge/UsbipHandshake.h"
#include "remote/bridge/UsbipTraffic.h"
#include "remote/device/Command.h"
#include "remote/io/InputBuffer.h"
#include "wire/UsbipPdu.h"

namespace {

// Gives `bytes` to `read` in pieces, together with what it has left before.
template <typename Read>
void feed(Input& input, remote::InputBuffer& buffer, std::size_t piece, Read read) {
    while (!input.Empty()) {
        const std::string_view bytes = input.Take(std::max<std::size_t>(piece, 1));
        std::copy(bytes.begin(), bytes.end(), buffer.Space().begin());
        buffer.Advance(bytes.size());
        if (!read()) return;
    }
}

void list(Input& input) {
    remote::ListReader reader;
    remote::InputBuffer buffer;
    feed(input, buffer, input.Number<std::uint8_t>(), [&] {
        buffer.Take(reader.Read(buffer.Unread()));
        return reader.Error().empty() && !reader.Done();
    });
    if (reader.Done()) remote::DeviceTable(reader.Devices());
}

void import(Input& input) {
    remote::ServedDevice device;
    std::string error;
    remote::InputBuffer buffer;
    feed(input, buffer, input.Number<std::uint8_t>(), [&] {
        const std::size_t size = remote::ReadImportReply(buffer.Unread(), "1-1", device, error);
        buffer.Take(size);
        return size == 0 && error.empty();
    });
}

// The host's kernel: it knows which commands it waits for, and how much room they have.
class Host : public remote::ReplySink {
  public:
    void Reply(remote::Bytes pdu) override {
        Require(pdu.size() >= sizeof(usbip_header), "replies have a header");
        const auto header = remote::LoadRaw<usbip_header>(pdu.data());
        const std::uint32_t seqnum = be32toh(header.seqnum);
        if (be32toh(header.command) == USBIP_RET_UNLINK) {
            const auto unlink = unlinks.find(seqnum);
            Require(unlink != unlinks.end(), "an unlink is answered once");
            urbs.erase(unlink->second);
            unlinks.erase(unlink);
            return;
        }
        const auto urb = urbs.find(seqnum);
        Require(be32toh(header.command) == USBIP_RET_SUBMIT && urb != urbs.end(),
                "a URB is answered once, and not after its unlink");
        const bool out = urb->second.direction == USBIP_DIR_OUT;
        Require(pdu.size() == UsbipRetSubmitLength(header, out).Total() &&
                    be32toh(header.u.ret_submit.actual_length) <=
                        be32toh(urb->second.u.cmd_submit.transfer_buffer_length),
                "a reply is whole and fits its URB");
        urbs.erase(urb);
    }

    std::map<std::uint32_t, usbip_header> urbs;      // submitted and not answered
    std::map<std::uint32_t, std::uint32_t> unlinks;  // with their targets
};

remote::Bytes submit_command(Input& input, std::uint32_t seqnum, Host& host) {
    usbip_header header{};
    header.command = htobe32(USBIP_CMD_SUBMIT);
    header.seqnum = htobe32(seqnum);
    header.direction = htobe32(input.Number<std::uint8_t>() & 1U);
    header.u.cmd_submit.transfer_buffer_length = htobe32(input.Number<std::uint16_t>());
    header.u.cmd_submit.number_of_packets = htobe32(input.Number<std::uint8_t>());
    host.urbs[seqnum] = header;
    remote::Bytes pdu(UsbipCmdSubmitLength(header).Total());
    remote::StoreRaw(pdu.data(), header);
    return pdu;
}

remote::Bytes unlink_command(std::uint32_t seqnum, std::uint32_t target, Host& host) {
    usbip_header header{};
    header.command = htobe32(USBIP_CMD_UNLINK);
    header.seqnum = htobe32(seqnum);
    header.u.cmd_unlink.seqnum = htobe32(target);
    host.unlinks[seqnum] = target;
    return remote::ToBytes(header);
}

void traffic(Input& input) {
    remote::UsbipTraffic traffic;
    remote::InputBuffer buffer;
    Host host;
    std::string error;
    const auto command = [&](const remote::Bytes& pdu) {
        remote::Command decoded;
        error = remote::DecodeCommand(pdu, decoded);
        Require(error.empty(), "our own commands are good");
        error = traffic.TakeCommand(decoded, host);
    };
    for (std::uint32_t seqnum = 1; !input.Empty() && error.empty(); ++seqnum) {
        switch (input.Number<std::uint8_t>()) {
            case 0:
                command(submit_command(input, seqnum, host));
                break;
            case 1:
                command(unlink_command(seqnum, input.Number<std::uint8_t>(), host));
                break;
            default:
                const std::string_view block = input.Block();
                Input bytes(reinterpret_cast<const std::uint8_t*>(block.data()), block.size());
                feed(bytes, buffer, block.size(), [&] {
                    error = traffic.TakeReplies(buffer, host);
                    return error.empty();
                });
        }
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    switch (input.Number<std::uint8_t>()) {
        case 0:
            list(input);
            break;
        case 1:
            import(input);
            break;
        default:
            traffic(input);
    }
    return 0;
}
