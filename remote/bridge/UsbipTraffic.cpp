#include "remote/bridge/UsbipTraffic.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string_view>
#include <utility>

#include "remote/device/Reply.h"
#include "wire/UsbipPdu.h"
#include "wire/UsbipReplyGuard.h"

namespace remote {
namespace {

std::string number_text(const char* what, std::uint32_t number) {
    return what + (" " + std::to_string(number));
}

Bytes copy(ByteView pdu) {
    return {pdu.begin(), pdu.end()};
}

std::vector<std::uint32_t> packet_lengths(const Command& command) {
    std::vector<std::uint32_t> lengths(command.PacketCount());
    for (std::size_t i = 0; i < lengths.size(); ++i) {
        lengths[i] = LoadBe32(&command.packets[i * sizeof(usbip_iso_packet_descriptor) +
                                               offsetof(usbip_iso_packet_descriptor, length)]);
    }
    return lengths;
}

}  // namespace

// The rule of unlinks. The host's kernel waits for ever for the answer to one, gives the URB back
// when it comes, and ends the device over a reply to that URB afterwards. Therefore, when the URB
// is
//  - under way: the server decides. Its RET_UNLINK is passed on and settles the URB, too. If the
//    URB's reply comes first, the URB has won: the reply is passed on and at once a RET_UNLINK of
//    ours with status 0, since a server that has forgotten the URB may keep silent. Should its
//    RET_UNLINK come all the same, it is dropped;
//  - answered: its reply precedes ours on the stream to the host. RET_UNLINK with status 0 from us;
//  - never seen: it was submitted to the device that had the host's port before. RET_UNLINK with
//    -ECONNRESET from us, because Linux servers would keep silent.
std::string UsbipTraffic::TakeCommand(const Command& command, ReplySink& sink) {
    if (!command.unlinks) {
        std::string error = Submit(command);
        return error.empty() ? Queue(command.pdu) : error;
    }
    const std::uint32_t target = *command.unlinks;
    const auto urb = urbs_.find(target);
    if (urb == urbs_.end() || urb->second.given_back) {
        sink.Reply(RetUnlink(command.seqnum, submitted_.Contains(target) ? 0 : -ECONNRESET));
        return {};
    }
    const Unlink unlink{target, Clock::now() + kUnlinkTimeout};
    if (std::exchange(urb->second.unlink, command.seqnum) ||
        !unlinks_.try_emplace(command.seqnum, unlink).second) {
        return number_text("the host repeats the unlink", command.seqnum);
    }
    return Queue(command.pdu);
}

std::string UsbipTraffic::Submit(const Command& command) {
    if (urbs_.size() >= kMaxUrbs) return "the server leaves too many URBs unanswered";
    Urb urb{.out = !command.in, .length = command.length, .packets = packet_lengths(command)};
    const auto [place, added] = urbs_.try_emplace(command.seqnum, std::move(urb));
    // Untouched when there is one of this number.
    if (!added && !std::exchange(place->second, std::move(urb)).given_back) {
        return number_text("the host repeats the sequence number", command.seqnum);
    }
    submitted_.Add(command.seqnum);
    return {};
}

std::string UsbipTraffic::Queue(ByteView pdu) {
    if (pdu.size() > kMaxQueued - std::min(output_.Pending(), kMaxQueued)) {
        return "the server does not read: " + std::to_string(output_.Pending()) + " bytes wait";
    }
    output_.Push(copy(pdu));
    return {};
}

std::string UsbipTraffic::TakeReplies(InputBuffer& input, ReplySink& sink) {
    while (input.Unread().size() >= sizeof(usbip_header)) {
        const auto header = LoadRaw<usbip_header>(input.Unread().data());
        const std::uint32_t command = be32toh(header.command);
        const std::uint32_t seqnum = be32toh(header.seqnum);
        if (command == USBIP_RET_UNLINK) {
            OnRetUnlink(seqnum, copy(input.Take(sizeof header)), sink);
            continue;
        }
        if (command != USBIP_RET_SUBMIT) return number_text("the server sends command", command);
        const auto found = urbs_.find(seqnum);
        if (found == urbs_.end()) return number_text("the server answers unknown URB", seqnum);
        const Urb& urb = found->second;
        const UsbipPduLength length = UsbipRetSubmitLength(header, urb.out);
        // No more is waited for than was asked for.
        if (be32toh(header.u.ret_submit.actual_length) > urb.length ||
            length.iso > urb.packets.size() * sizeof(usbip_iso_packet_descriptor) ||
            !length.Acceptable()) {
            return number_text("the server answers with more than was asked for in URB", seqnum);
        }
        if (input.Unread().size() < length.Total()) break;
        Bytes pdu = copy(input.Take(length.Total()));
        // The host's kernel believes the rest.
        const std::string_view reply(reinterpret_cast<const char*>(pdu.data()), pdu.size());
        if (const char* lie = UsbipLieIn({urb.out, urb.length, urb.packets}, reply)) {
            return number_text("the server's answer to URB", seqnum) + " has " + lie;
        }
        if (!urb.given_back) sink.Reply(std::move(pdu));
        if (urb.unlink) {
            sink.Reply(RetUnlink(*urb.unlink, 0));
            unlinks_.erase(*urb.unlink);
        }
        urbs_.erase(found);
    }
    return {};
}

// After a status of 0 the URB's reply may still follow: Linux servers queue the two apart, and in a
// rare race send them the wrong way round. After any other none does.
void UsbipTraffic::OnRetUnlink(std::uint32_t seqnum, Bytes pdu, ReplySink& sink) {
    const auto unlink = unlinks_.find(seqnum);
    if (unlink == unlinks_.end()) return;
    const auto urb = urbs_.find(unlink->second.target);
    if (LoadRaw<usbip_header>(pdu.data()).u.ret_unlink.status == 0) {
        urb->second.given_back = true;
        urb->second.unlink.reset();
    } else {
        urbs_.erase(urb);
    }
    unlinks_.erase(unlink);
    sink.Reply(std::move(pdu));
}

std::optional<Clock::time_point> UsbipTraffic::Deadline() const {
    if (unlinks_.empty()) return std::nullopt;
    return unlinks_.begin()->second.due;  // the kernel numbers upwards: the oldest
}

}  // namespace remote
