#include "kit/TapSending.h"

#include <cstring>
#include <utility>

#include "wire/ChannelMessages.h"

namespace xj_usbip {
namespace {

constexpr std::size_t kMostEnds = 1024;

template <typename Message>
Message as(std::string_view bytes) {
    Message message{};
    bytes.copy(reinterpret_cast<char*>(&message), sizeof message);
    return message;
}

}  // namespace

int Tap::Sending::Write(const void* data, unsigned long len, unsigned long* written,
                        unsigned long reserved) {
    int result = 0;
    {
        const std::lock_guard lock(writing_);
        if (left_ == 0) {
            // Before it is written: the reply may be read before Write returns. The module writes
            // a message from one buffer, so all of it is there.
            Look({static_cast<const char*>(data), len});
            left_ = len;
        }
        result = stream_.Write(data, len, written, reserved);
        // A message that fails is never finished, and the next one is tried.
        left_ = result == 0 && *written < left_ ? left_ - *written : 0;
    }
    WriteEnds();
    return result;
}

void Tap::Sending::Look(std::string_view message) {
    if (message.size() < sizeof(usbip_message_head)) return;
    switch (as<usbip_message_head>(message).inner.type) {
        case kUsbipForward:
            if (message.size() >= kForwardOverhead) LookAtForward(message);
            break;
        case kUsbipDevUnmap: {
            const std::uint32_t id = as<usbip_dev_unmap>(message).devid;
            if (devices_.Remove(id)) events_.OnEnd(id);
            break;
        }
        case kUsbipVersionRsp:
            events_.OnVersion(as<usbip_version_rsp>(message).version);
            break;
        default:
            break;
    }
}

void Tap::Sending::LookAtForward(std::string_view message) {
    const auto forward = as<usbip_forward>(message);
    Followed* const followed = last_.Find(forward.devid);
    if (followed == nullptr) return;
    const bool compressed = forward.rawsize != 0;
    const std::size_t shown = devices_.shown;
    std::string_view pdu = message.substr(sizeof forward, forward.datasize);
    const std::uint64_t size = compressed ? forward.rawsize : pdu.size();
    const std::size_t data = shown == Devices::kNone ? 0 : shown;
    if (compressed) {
        front_.clear();
        inflater_.Begin();
        inflater_.Feed(pdu, front_, sizeof(usbip_header) + data);
        pdu = front_;
    }
    if (pdu.size() < sizeof(usbip_header)) return;
    followed->OnCommand(UsbipHeaderOf(pdu), size, message.size(), compressed);
    if (shown == Devices::kNone) return;
    events_.OnPdu({followed->device, true, pdu.substr(0, sizeof(usbip_header) + data), size});
}

bool Tap::Sending::Refuse(std::uint32_t id) {
    {
        const std::lock_guard lock(ends_mutex_);
        if (ends_.size() == kMostEnds) return false;
        ends_.push_back(id);
        ++ends_waiting_;
    }
    WriteEnds();
    return true;
}

void Tap::Sending::WriteEnds() {
    // Whoever has writing_ comes here, too, once it is free. So nothing is left lying: if this does
    // not see what somebody else adds, then that one sees writing_ free. For that this has to be a
    // change of the counter, not only a look at it.
    while (ends_waiting_.fetch_add(0) > 0) {
        const std::unique_lock lock(writing_, std::try_to_lock);
        if (!lock || left_ != 0) return;
        std::vector<std::uint32_t> ends;
        {
            const std::lock_guard guard(ends_mutex_);
            ends.swap(ends_);
            ends_waiting_ -= static_cast<int>(ends.size());
        }
        std::string messages;
        for (const std::uint32_t id : ends) {
            const usbip_dev_unmap end{MakeMessageHead(kUsbipDevUnmap, sizeof end), id};
            messages.append(reinterpret_cast<const char*>(&end), sizeof end);
        }
        for (std::string_view rest = messages; !rest.empty();) {
            unsigned long written = 0;
            if (stream_.Write(rest.data(), rest.size(), &written, 0) != 0) return;
            rest.remove_prefix(written);
        }
    }
}

}  // namespace xj_usbip
