#include "kit/Followed.h"

#include <algorithm>
#include <ctime>

namespace xj_usbip {
namespace {

// More are not under way at any sensible device: those that are never answered would pile up.
constexpr std::size_t kMostWaiting = 1024;

std::int64_t now(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

void count(Passed& passed, std::uint64_t size, std::uint64_t on_stream, bool compressed) {
    ++passed.pdus;
    passed.bytes += size;
    passed.on_stream += on_stream;
    passed.compressed += compressed;
}

}  // namespace

void Followed::OnCommand(const usbip_header& header, std::uint64_t size, std::uint64_t on_stream,
                         bool compressed) {
    const bool unlink = be32toh(header.command) == USBIP_CMD_UNLINK;
    const Waiting waiting{be32toh(header.seqnum), unlink ? be32toh(header.u.cmd_unlink.seqnum) : 0,
                          header.direction == USBIP_DIR_OUT, now(CLOCK_MONOTONIC_COARSE)};
    const std::lock_guard lock(mutex_);
    count(counts_.to_remote, size, on_stream, compressed);
    if (waiting_.size() == kMostWaiting) Forget(waiting_.front().seqnum);
    waiting_.push_back(waiting);
    // One at a time: the exact clock costs more than all the rest of this.
    if (timed_ == 0 && !unlink) {
        timed_ = waiting.seqnum;
        timed_since_ = now(CLOCK_MONOTONIC);
    }
}

bool Followed::Forget(std::uint32_t seqnum) {
    const auto found = std::find_if(waiting_.begin(), waiting_.end(),
                                    [=](const Waiting& one) { return one.seqnum == seqnum; });
    if (found == waiting_.end()) return false;
    const auto [number, unlinks, out, since] = *found;
    waiting_.erase(found);
    if (number == timed_) timed_ = 0;
    if (unlinks != 0) Forget(unlinks);  // that one gets no reply of its own any more
    return out;
}

std::uint64_t Followed::OnReply(const usbip_header& header, std::uint64_t on_stream,
                                bool compressed) {
    const std::lock_guard lock(mutex_);
    const std::uint32_t seqnum = be32toh(header.seqnum);
    if (seqnum == timed_ && timed_ != 0) {
        counts_.round_trip = std::chrono::nanoseconds(now(CLOCK_MONOTONIC) - timed_since_);
    }
    const auto length = UsbipReplyLength(header, Forget(seqnum));
    if (!length || !length->Acceptable()) return 0;
    count(counts_.from_remote, length->Total(), on_stream, compressed);
    return length->Total();
}

DeviceCounts Followed::Counts() const {
    const std::lock_guard lock(mutex_);
    DeviceCounts counts = counts_;
    counts.outstanding = waiting_.size();
    if (!waiting_.empty()) {
        counts.oldest =
            std::chrono::nanoseconds(now(CLOCK_MONOTONIC_COARSE) - waiting_.front().since);
    }
    return counts;
}

}  // namespace xj_usbip
