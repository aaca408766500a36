// Makes seeds of what vm/recording.sh has recorded:
//   fuzz_recorded_seeds RECORDING fuzz/corpus
// Short messages and PDUs only, and the first ones: an input of many bytes slows a target down.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "fakes/Messages.h"

namespace {

constexpr std::size_t kLongest = 1024;  // message or PDU that is taken over
constexpr std::size_t kMost = 8192;     // bytes of a seed

// As the recording's remote side has numbered them.
constexpr std::uint32_t kDisk = 1;
constexpr std::uint32_t kServedDevice = 2;

std::filesystem::path recording;
std::filesystem::path corpus;

void seed(const std::string& target, const std::string& name, const std::string& bytes) {
    std::filesystem::create_directories(corpus / target);
    std::ofstream(corpus / target / name, std::ios::binary) << bytes;
}

std::string byte(int value) {
    return {static_cast<char>(value)};
}
std::string half(std::size_t value) {  // 16 bits, little-endian
    return byte(static_cast<int>(value & 0xFF)) + byte(static_cast<int>(value >> 8));
}
std::string word(std::uint32_t value) {
    return Bytes(value);
}
std::string block(const std::string& bytes) {
    return half(bytes.size()) + bytes;
}

std::string content(const char* name) {
    std::ifstream file(recording / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> messages(const char* name) {
    std::vector<std::string> all;
    const std::string stream = content(name);
    for (std::size_t at = 0; stream.size() - at > sizeof(_MESSAGE_HEADER);) {
        const auto header = Parse<_MESSAGE_HEADER>(std::string_view(stream).substr(at));
        all.push_back(stream.substr(at, sizeof header + header.length));
        at += all.back().size();
    }
    return all;
}

std::string stream_start(const char* name) {
    std::string start;
    for (const std::string& message : messages(name))
        if (message.size() <= kLongest && start.size() + message.size() <= kMost) start += message;
    return start;
}

struct Pdu {
    usbip_header header;
    std::string bytes;
};

// Those that were forwarded for this device.
std::vector<Pdu> pdus(const char* name, std::uint32_t devid) {
    std::vector<Pdu> all;
    for (const std::string& message : messages(name)) {
        const auto forward = Parse<usbip_forward>(message);
        if (forward.head.inner.type != kUsbipForward || forward.devid != devid) continue;
        const std::string bytes = message.substr(sizeof forward, forward.datasize);
        if (bytes.size() <= kLongest) all.push_back({Parse<usbip_header>(bytes), bytes});
    }
    return all;
}

std::string numbered(Pdu reply, std::uint32_t seqnum) {
    reply.header.seqnum = htobe32(seqnum);
    return Bytes(reply.header) + reply.bytes.substr(sizeof reply.header);
}

// A command as one step of target disk_commands.
std::string disk_step(const Pdu& command) {
    const auto& submit = command.header.u.cmd_submit;
    const std::uint32_t length = be32toh(submit.transfer_buffer_length);
    const std::string data = command.bytes.substr(sizeof command.header);
    if (be32toh(command.header.ep) == 0) return byte(0) + Bytes(submit.setup) + half(length);
    if (command.header.direction != USBIP_DIR_OUT) {
        return byte(3) + word(length) + byte(static_cast<int>(be32toh(submit.transfer_flags)));
    }
    if (!data.starts_with("USBC")) return byte(2) + half(length);
    return byte(1) + data.substr(8, 5) + data.substr(14);
}

void of_the_disk() {
    std::string commands;
    std::string steps = byte(0);
    std::map<std::uint32_t, bool> out;  // by sequence number
    for (const Pdu& command : pdus("to-remote", kDisk)) {
        if (be32toh(command.header.command) != USBIP_CMD_SUBMIT) continue;
        out[command.header.seqnum] = command.header.direction == USBIP_DIR_OUT;
        if (commands.size() < kMost) commands += command.bytes;
        if (steps.size() < kMost) steps += disk_step(command);
    }
    seed("kernel_bytes", "recorded", commands);
    seed("disk_commands", "recorded", steps);
    // The target expects replies to OUT commands with these numbers only.
    std::uint32_t next_out = 1;
    constexpr std::uint32_t kLastOut = 4;
    std::uint32_t next_in = 10;
    std::string replies;
    for (const Pdu& reply : pdus("to-host", kDisk)) {
        const bool answers_out = out[reply.header.seqnum];
        if ((answers_out && next_out > kLastOut) || replies.size() > kMost) continue;
        replies += block(numbered(reply, answers_out ? next_out++ : next_in++));
    }
    seed("peer_pdus", "recorded", replies);
}

void of_the_served_device() {
    std::map<std::uint32_t, usbip_header> commands;
    for (const Pdu& command : pdus("to-remote", kServedDevice))
        commands[command.header.seqnum] = command.header;
    std::string turns = byte(2);
    std::uint32_t seqnum = 0;
    for (const Pdu& reply : pdus("to-host", kServedDevice)) {
        const usbip_header& command = commands[reply.header.seqnum];
        if (be32toh(command.command) != USBIP_CMD_SUBMIT || turns.size() > kMost) continue;
        turns += byte(0) + byte(command.direction == USBIP_DIR_OUT ? 0 : 1) +
                 half(be32toh(command.u.cmd_submit.transfer_buffer_length)) + byte(0);
        turns += byte(2) + block(numbered(reply, ++seqnum));
        ++seqnum;  // the target counts its turns
    }
    seed("usbip_server", "recorded", turns);
    seed("usbip_server", "recorded-list", byte(0) + byte(255) + content("list"));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    recording = argv[1];
    corpus = argv[2];
    seed("host_stream", "recorded", byte(0) + stream_start("to-host"));
    seed("remote_channel", "recorded", byte(2) + stream_start("to-remote"));
    seed("vhci_status", "recorded", content("sysfs"));
    of_the_disk();
    of_the_served_device();
    return 0;
}
