#include "vm/microphone/Microphone.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <string_view>
#include <utility>

#include "remote/device/Reply.h"
#include "wire/UsbipPdu.h"

namespace remote {
namespace {

using Packet = usbip_iso_packet_descriptor;

// Of the Linux Foundation's audio gadget.
constexpr std::uint16_t kVendor = 0x1D6B;
constexpr std::uint16_t kProduct = 0x0101;

constexpr std::uint32_t kSampleRate = 44'100;
constexpr std::chrono::microseconds kPacketTime{125};  // a microframe
constexpr std::uint32_t kPacketsPerSecond = 8000;
constexpr std::size_t kLongestPacket = 6 * sizeof(std::uint16_t);
constexpr std::uint8_t kPacketRoom = 16;
constexpr std::size_t kFewestPackets = 2;  // of a URB
constexpr std::size_t kMaxUrbs = 64;       // the kernel's audio driver has 12 under way

enum Interface : std::uint8_t { kAudioControl = 0, kAudioStreaming = 1 };
constexpr std::uint8_t kEndpoint = 1;

// bmRequestType << 8 | bRequest, and wValue (USB 2.0 section 9.4)
enum Request : std::uint16_t {
    kGetDescriptor = 0x8006,
    kSetConfiguration = 0x0009,
    kSetInterface = 0x010B,
};
enum Descriptor : std::uint16_t { kDevice = 0x0100, kConfiguration = 0x0200 };

// USB 2.0 section 9.6
constexpr std::uint8_t kDeviceDescriptor[] = {
    // USB 2.0; the class is the interfaces'
    18, 0x01, 0x00, 0x02, 0, 0, 0, 64,
    // ids, release 1.0, no texts, one configuration
    kVendor & 0xFF, kVendor >> 8, kProduct & 0xFF, kProduct >> 8, 0x00, 0x01, 0, 0, 0, 1};

// USB Audio 1.0 section 4
constexpr std::uint8_t kConfigurationDescriptor[] = {
    // self-powered
    9, 0x02, 100, 0, 2, 1, 0, 0xC0, 0,
    // interface for control
    9, 0x04, kAudioControl, 0, 0, 0x01, 0x01, 0, 0,
    // its header, of 30 bytes with the terminals
    9, 0x24, 0x01, 0x00, 0x01, 30, 0, 1, kAudioStreaming,
    // input terminal 1: a microphone with one channel
    12, 0x24, 0x02, 1, 0x01, 0x02, 0, 1, 0, 0, 0, 0,
    // output terminal 2: USB, with the other for a source
    9, 0x24, 0x03, 2, 0x01, 0x01, 0, 1, 0,
    // interface for the stream, at rest
    9, 0x04, kAudioStreaming, 0, 0, 0x01, 0x02, 0, 0,
    // and with an endpoint
    9, 0x04, kAudioStreaming, 1, 1, 0x01, 0x02, 0, 0,
    // PCM, from terminal 2
    7, 0x24, 0x01, 2, 1, 0x01, 0x00,
    // one channel, 16 bits, one sample rate
    11, 0x24, 0x02, 0x01, 1, 2, 16, 1, kSampleRate & 0xFF, kSampleRate >> 8, 0,
    // isochronous endpoint, asynchronous, every microframe
    9, 0x05, 0x80 | kEndpoint, 0x05, kPacketRoom, 0, 1, 0, 0,
    // whose rate cannot be set
    7, 0x25, 0x01, 0x00, 0, 0, 0};
static_assert(std::size(kConfigurationDescriptor) == 100);

// With sound, before the first lie. (URBs of the kernel's audio driver last 1 ms.) Of those that
// follow every second one is honest, so that something is recorded when a lie leaves out
// everything.
constexpr std::uint32_t kHonestReplies = 100;

Bytes encode(std::uint32_t seqnum, const SubmitReply& reply) {
    Bytes pdu = RoomForReply();
    pdu.insert(pdu.end(), reply.data.begin(), reply.data.end());
    std::size_t at = pdu.size();
    pdu.resize(at + reply.packets.size() * sizeof(Packet));
    for (const Packet& packet : reply.packets) {
        StoreRaw(&pdu[at], Packet{htobe32(packet.offset), htobe32(packet.length),
                                  htobe32(packet.actual_length), htobe32(packet.status)});
        at += sizeof packet;
    }
    return RetSubmit({seqnum, reply.status, reply.actual_length, reply.packets.size()},
                     std::move(pdu));
}

}  // namespace

DeviceInfo MicrophoneInfo() {
    return {"microphone", UsbSpeed::kHigh, kVendor, kProduct};
}

usbip_op_device MicrophoneRecord() {
    usbip_op_device record{};
    std::string_view("/microphone").copy(record.path, sizeof record.path - 1);
    std::string_view("1-1").copy(record.busid, sizeof record.busid - 1);
    record.busnum = htobe32(1);
    record.devnum = htobe32(2);
    record.speed = htobe32(static_cast<std::uint32_t>(UsbSpeed::kHigh));
    record.id_vendor = htobe16(kVendor);
    record.id_product = htobe16(kProduct);
    record.configurations = 1;
    record.interfaces = 2;
    return record;
}

Bytes Microphone::TakeCommand(const Command& command) {
    if (command.unlinks) return Unlink(command.seqnum, *command.unlinks);
    submitted_.Add(command.seqnum);
    if (command.endpoint == kEndpoint) return Submit(command);
    std::optional<Bytes> answer = Control(command.setup.data());
    if (!answer) return RetSubmit({command.seqnum, -EPIPE});
    if (answer->size() > command.length) answer->resize(command.length);
    SubmitReply reply{0, static_cast<std::uint32_t>(answer->size()), std::move(*answer), {}};
    Twist(Lie::About::kEnumeration, reply, command.length);
    if (!command.in) Twist(Lie::About::kOut, reply, command.length);
    return encode(command.seqnum, reply);
}

void Microphone::Twist(Lie::About about, SubmitReply& reply, std::uint32_t room) {
    if (lies_.empty()) return;
    const Lie& lie = *lies_[told_ % lies_.size()];
    if (lie.about != about) return;
    if (about != Lie::About::kEnumeration && replies_ <= kHonestReplies) return;
    if (told_++ == 0) std::fputs("the first lie\n", stderr);
    lie.tell(reply, room);
}

// The data of an answer, none for OUT requests. Nothing: the request stalls.
std::optional<Bytes> Microphone::Control(const std::uint8_t* setup) {
    const std::uint16_t value = LoadLe16(setup + 2);
    switch (setup[0] << 8 | setup[1]) {
        case kGetDescriptor:
            if (value == kDevice) {
                return Bytes(std::begin(kDeviceDescriptor), std::end(kDeviceDescriptor));
            }
            if (value != kConfiguration) return std::nullopt;
            return Bytes(std::begin(kConfigurationDescriptor), std::end(kConfigurationDescriptor));
        case kSetInterface:
            streaming_ = LoadLe16(setup + 4) == kAudioStreaming && value == 1;
            return Bytes{};
        case kSetConfiguration:
            return Bytes{};
        default:
            return std::nullopt;
    }
}

// Packets follow those of the URB before. While there is no URB, time stands still: a microphone
// would lose samples then, and this one is to show who else does.
Bytes Microphone::Submit(const Command& command) {
    const std::size_t count = command.PacketCount();
    bool fits = streaming_ && command.in && urbs_.size() < kMaxUrbs &&
                command.length / kLongestPacket >= count && count >= kFewestPackets;
    std::vector<Packet> asked;
    for (std::size_t i = 0; fits && i < count; ++i) {
        const auto packet = LoadRaw<Packet>(&command.packets[i * sizeof(Packet)]);
        asked.push_back({be32toh(packet.offset), be32toh(packet.length), 0, 0});
        fits = asked.back().length >= kLongestPacket;
    }
    if (!fits) return RetSubmit({command.seqnum, -EINVAL});
    recorded_until_ = std::max(recorded_until_, Clock::now()) + count * kPacketTime;
    urbs_.push_back({command.seqnum, recorded_until_, command.length, std::move(asked)});
    return {};
}

std::optional<Clock::time_point> Microphone::Due() const {
    return urbs_.empty() ? std::nullopt : std::optional(urbs_.front().due);
}

Bytes Microphone::TakeRecording() {
    Urb& urb = urbs_.front();
    SubmitReply reply{0, 0, {}, std::move(urb.packets)};
    std::uint16_t sample = sample_;
    for (Packet& packet : reply.packets) {
        for (phase_ += kSampleRate; phase_ >= kPacketsPerSecond; phase_ -= kPacketsPerSecond) {
            reply.data.push_back(static_cast<std::uint8_t>(sample & 0xFF));
            reply.data.push_back(static_cast<std::uint8_t>(sample++ >> 8));
        }
        packet.actual_length = static_cast<std::uint32_t>(reply.data.size()) - reply.actual_length;
        reply.actual_length += packet.actual_length;
    }
    if (++replies_ % 2 == 0) Twist(Lie::About::kSound, reply, urb.room);
    // What the reply leaves out comes next.
    sample_ += static_cast<std::uint16_t>(reply.data.size() / sizeof sample);
    Bytes pdu = encode(urb.seqnum, reply);
    urbs_.pop_front();
    return pdu;
}

Bytes Microphone::Unlink(std::uint32_t seqnum, std::uint32_t target) {
    const bool dropped =
        std::erase_if(urbs_, [&](const Urb& urb) { return urb.seqnum == target; }) != 0;
    return RetUnlink(seqnum, dropped || !submitted_.Contains(target) ? -ECONNRESET : 0);
}

}  // namespace remote
