// Forward messages of the peer into the write thread, while the commands below wait for their
// replies. Each message has its length before it. The kernel gets the whole PDUs at its front that
// are no lies; a kernel that believes them all touches nothing outside its URBs.
#include <map>

#include "fuzz/MappedDevice.h"
#include "wire/UsbipReplyGuard.h"

namespace {

struct Urb {
    bool out;
    std::uint32_t length;
    std::vector<std::uint32_t> packets;
};
using Urbs = std::map<std::uint32_t, Urb>;

const Urbs kUrbs = {{1, {true, 4, {}}},       {2, {true, 4, {}}},   {3, {true, 4, {}}},
                    {4, {true, 4, {}}},       {5, {false, 64, {}}}, {6, {false, 64, {16, 16, 32}}},
                    {7, {true, 32, {16, 16}}}};

std::string command(std::uint32_t seqnum, const Urb& urb) {
    std::vector<IsoPacket> packets;
    for (const std::uint32_t length : urb.packets)
        packets.push_back({0, length, 0});
    return WithPackets(
        urb.out ? SubmitOut(seqnum, std::string(urb.length, 'o')) : SubmitIn(seqnum, urb.length),
        packets);
}

enum class After { kGoesOn, kWritesNoMore, kEnded };

// How many bytes of a message the kernel gets, and what happens then.
std::size_t passed(std::string_view message, Urbs& urbs, After& after) {
    std::size_t good = 0;
    do {
        const std::string_view rest = message.substr(good);
        after = good == 0 ? After::kWritesNoMore : After::kGoesOn;
        if (rest.size() < sizeof(usbip_header)) return good;
        const auto header = Parse<usbip_header>(rest);
        const auto urb = urbs.find(be32toh(header.seqnum));
        const auto length = UsbipReplyLength(header, urb != urbs.end() && urb->second.out);
        if (!length || !length->Acceptable() || length->Total() > rest.size()) return good;
        if (be32toh(header.command) == USBIP_RET_SUBMIT) {
            const std::string_view reply = rest.substr(0, length->Total());
            const char* lie = nullptr;
            if (urb == urbs.end()) {
                lie = UsbipLieInStray(reply);
            } else {
                const auto& [out, size, packets] = urb->second;
                lie = UsbipLieIn({out, size, packets}, reply);
                urbs.erase(urb);
            }
            if (lie != nullptr) after = After::kEnded;
            if (lie != nullptr) return good;
        }
        good += length->Total();
    } while (good < message.size());
    after = After::kGoesOn;
    return good;
}

// What Linux does with replies: a number that it does not know ends the connection. `stray` is the
// URB that it may have submitted under such a number in the meantime.
void kernel_takes(std::string_view bytes, Urbs urbs, const Urb& stray) {
    const auto within = [](std::uint64_t offset, std::uint64_t size, const Urb& urb) {
        Require(offset + size <= urb.length, "the kernel stays in its URB");
    };
    while (bytes.size() >= sizeof(usbip_header)) {
        const auto header = Parse<usbip_header>(bytes);
        bytes.remove_prefix(sizeof header);
        if (be32toh(header.command) == USBIP_RET_UNLINK) continue;
        if (be32toh(header.command) != USBIP_RET_SUBMIT) return;
        const Urb urb = urbs.try_emplace(be32toh(header.seqnum), stray).first->second;
        const std::uint32_t actual_length = be32toh(header.u.ret_submit.actual_length);
        if (!urb.out) {
            if (actual_length > urb.length) return;  // this much it looks at
            bytes.remove_prefix(std::min<std::size_t>(actual_length, bytes.size()));
        }
        const std::uint32_t count = be32toh(header.u.ret_submit.number_of_packets);
        for (std::uint32_t i = 0; i < count && !urb.packets.empty(); ++i) {
            Require(i < urb.packets.size(), "the kernel has room for the packet's descriptor");
            const auto packet = Parse<usbip_iso_packet_descriptor>(bytes);
            bytes.remove_prefix(std::min(sizeof packet, bytes.size()));
            within(be32toh(packet.offset), be32toh(packet.actual_length), urb);
        }
        urbs.erase(be32toh(header.seqnum));
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Rig& rig = ThePlugin();
    const NothingLeftBehind check;
    MappedDevice device;
    for (const auto& [seqnum, urb] : kUrbs) {
        device.kernel->Send(command(seqnum, urb));
        Require(!rig.NextMessage().empty(), "commands reach the peer");
    }
    Urbs urbs = kUrbs;
    After after = After::kGoesOn;
    std::string expected;
    for (Input input(data, size); !input.Empty() && after == After::kGoesOn;) {
        const std::string_view message = input.Block();
        rig.host.Receive(ForwardMessage(MappedDevice::kDevId, message));
        expected += message.substr(0, passed(message, urbs, after));
    }
    Require(device.kernel->Receive(expected.size()) == expected, "replies arrive in order");
    for (const Urb& stray : {Urb{true, 0, {}}, Urb{false, 64, {}}, Urb{false, 64, {32, 32}}})
        kernel_takes(expected, kUrbs, stray);
    if (after != After::kGoesOn) {
        const LogLine quit{1, "[CUsbipClientLinux] 5 write thread prepare quit"};
        Require(rig.host.runtime.WaitForLine(quit), "a refused PDU ends the writing");
    }
    if (after == After::kEnded)
        Require(rig.NextMessage() == UnmapMessage(MappedDevice::kDevId), "a lie ends the device");
    rig.Handle(UnmapMessage(MappedDevice::kDevId));
    Require(after == After::kEnded || device.SentUntilTheEnd().empty(), "replies are not answered");
    Require(device.kernel->Receive(1).empty(), "nothing but accepted PDUs arrives");
    return 0;
}
