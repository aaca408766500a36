#include "kit/TapReading.h"

#include <algorithm>
#include <cstring>

namespace xj_usbip {
namespace {

constexpr std::size_t kHeader = sizeof(usbip_header);

// All that is decided or counted stands in the first bytes of a message, but for a map.
constexpr std::size_t kLongestHead = sizeof(usbip_forward);

RemoteDevice described_by(const usbip_dev_map& map) {
    RemoteDevice device;
    device.id = map.devid;
    device.kernel_id = map.dev.busid << 16 | map.dev.portid;
    device.speed = map.dev.speed;
    device.vendor = map.dev.vid;
    device.product = map.dev.pid;
    const std::string_view name(map.dev.instanceid, sizeof map.dev.instanceid);
    device.instance = name.substr(0, name.find('\0'));
    return device;
}

}  // namespace

int Tap::Reading::Read(void* buf, unsigned long len, unsigned long* got, unsigned long reserved) {
    *got = 0;
    if (given_ == held_ && left_ == 0 && !Begin()) return -1;
    const std::size_t held = std::min(len, held_ - given_);
    std::memcpy(buf, bytes_.data() + given_, held);
    given_ += held;
    *got = held;
    if (held == len || left_ == 0) return 0;
    char* const to = static_cast<char*>(buf) + held;
    unsigned long read = 0;
    const unsigned long room = std::min<std::uint64_t>(len - held, left_);
    if (const int failed = stream_.Read(to, room, &read, reserved)) return failed;
    left_ -= read;
    if (followed_ != nullptr) Follow({to, read});
    *got += read;
    return 0;
}

bool Tap::Reading::Hold(std::size_t size) {
    for (const std::size_t end = held_ + size; held_ < end;) {
        unsigned long read = 0;
        if (stream_.Read(bytes_.data() + held_, end - held_, &read, 0) != 0) return false;
        held_ += read;
    }
    left_ -= std::min<std::uint64_t>(left_, size);
    return true;
}

bool Tap::Reading::Skip() {
    while (left_ > 0) {
        held_ = 0;
        if (!Hold(std::min<std::uint64_t>(left_, bytes_.size()))) return false;
    }
    return true;
}

bool Tap::Reading::Begin() {
    for (;;) {
        followed_ = nullptr;
        held_ = given_ = 0;
        usbip_message_head head{};
        if (!Hold(sizeof head.outer)) return false;
        std::memcpy(&head, bytes_.data(), sizeof head.outer);
        left_ = head.outer.length;
        if (head.outer.type != kUsbipChannel || left_ < sizeof head.inner) return true;
        if (!Hold(std::min<std::uint64_t>(left_, kLongestHead - sizeof head.outer))) return false;
        std::memcpy(&head, bytes_.data(), sizeof head);
        const std::uint64_t size = held_ + left_;
        if (head.inner.type == kUsbipForward && size >= sizeof(usbip_forward)) {
            OnForward();
        } else if (head.inner.type == kUsbipDevUnmap && size >= sizeof(usbip_dev_unmap)) {
            OnUnmap();
        } else if (head.inner.type == kUsbipDevMap && size >= sizeof(usbip_dev_map)) {
            const Fate fate = OnMap();
            if (fate == Fate::Swallowed) continue;
            return fate == Fate::Passes;
        }
        return true;
    }
}

void Tap::Reading::OnUnmap() {
    usbip_dev_unmap unmap{};
    std::memcpy(&unmap, bytes_.data(), sizeof unmap);
    if (devices_.Remove(unmap.devid)) events_.OnUnmap(unmap.devid);
}

Tap::Reading::Fate Tap::Reading::OnMap() {
    if (!Hold(sizeof(usbip_dev_map) - held_)) return Fate::StreamEnded;
    usbip_dev_map map;
    std::memcpy(&map, bytes_.data(), sizeof map);
    const RemoteDevice device = described_by(map);
    const bool replaces = devices_.Remove(device.id);
    if (replaces) events_.OnUnmap(device.id);
    if (!devices_.Full()) {
        devices_.Add(device);  // first: it may be counted before the host has an answer
        if (events_.OnMap(device)) return Fate::Passes;
        devices_.Remove(device.id);
    }
    if (!Skip() || !sending_.Refuse(device.id)) return Fate::StreamEnded;
    if (!replaces) return Fate::Swallowed;
    // The module still has the device before: to it, this is where that one ends.
    const usbip_dev_unmap unmap{MakeMessageHead(kUsbipDevUnmap, sizeof unmap), device.id};
    std::memcpy(bytes_.data(), &unmap, sizeof unmap);
    held_ = sizeof unmap;
    return Fate::Passes;
}

void Tap::Reading::OnForward() {
    std::memcpy(&forward_, bytes_.data(), sizeof forward_);
    data_left_ = std::min<std::uint64_t>(forward_.datasize, left_);
    followed_ = last_.Find(forward_.devid);
    if (followed_ == nullptr) return;
    const std::size_t shown = devices_.shown;
    showing_ = shown != Devices::kNone;
    shown_ = showing_ ? shown : 0;
    front_.clear();
    pdu_left_ = 0;
    if (forward_.rawsize != 0) inflater_.Begin();
}

void Tap::Reading::Follow(std::string_view bytes) {
    const std::string_view data = bytes.substr(0, data_left_);
    data_left_ -= data.size();
    if (forward_.rawsize != 0) {
        FollowCompressed(data);
    } else {
        FollowPlain(data);
    }
}

// Usually one PDU, but there may be several.
void Tap::Reading::FollowPlain(std::string_view data) {
    while (!data.empty()) {
        if (pdu_left_ > 0) {
            const std::string_view piece = data.substr(0, pdu_left_);
            if (showing_) {
                front_ += piece.substr(0, shown_ - std::min(shown_, front_.size() - kHeader));
            }
            pdu_left_ -= piece.size();
            data.remove_prefix(piece.size());
        } else {
            const bool whole = front_.empty() && data.size() >= kHeader;
            const std::string_view piece = data.substr(0, kHeader - front_.size());
            if (!whole || showing_) front_ += piece;
            data.remove_prefix(piece.size());
            if (!whole && front_.size() < kHeader) return;
            const std::size_t on_stream =
                sizeof forward_.head.outer + std::size_t{forward_.head.outer.length};
            const std::string_view header = whole ? piece : std::string_view(front_);
            pdu_size_ = followed_->OnReply(UsbipHeaderOf(header), on_stream, false);
            if (pdu_size_ == 0) {  // no way to tell where the next begins
                followed_ = nullptr;
                return;
            }
            pdu_left_ = pdu_size_ - kHeader;
        }
        if (pdu_left_ == 0) Show();
    }
}

// Of more than one PDU only the first is seen: to find the others all would have to be inflated.
void Tap::Reading::FollowCompressed(std::string_view data) {
    const bool had_header = front_.size() >= kHeader;
    inflater_.Feed(data, front_, kHeader + shown_);
    if (!had_header && front_.size() >= kHeader) {
        const std::size_t on_stream =
            sizeof forward_.head.outer + std::size_t{forward_.head.outer.length};
        pdu_size_ = followed_->OnReply(UsbipHeaderOf(front_), on_stream, true);
        if (pdu_size_ == 0) followed_ = nullptr;
    }
    if (followed_ != nullptr && data_left_ == 0 && front_.size() >= kHeader) Show();
}

void Tap::Reading::Show() {
    const auto front = std::string_view(front_).substr(0, pdu_size_);
    if (showing_) events_.OnPdu({followed_->device, false, front, pdu_size_});
    front_.clear();
}

}  // namespace xj_usbip
