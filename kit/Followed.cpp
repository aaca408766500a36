#include "kit/Followed.h"

#include <algorithm>
#include <ctime>

namespace xj_usbip {
namespace {

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
    const std::uint32_t seqnum = be32toh(header.seqnum);
    const std::int64_t coarse = now(CLOCK_MONOTONIC_COARSE);
    const std::lock_guard lock(mutex_);
    count(counts_.to_remote, size, on_stream, compressed);
    Command& place = PlaceOf(seqnum);
    if (place.waiting && place.seqnum == timed_) timed_ = 0;
    place = {seqnum, true, header.direction == USBIP_DIR_OUT,
             unlink ? be32toh(header.u.cmd_unlink.seqnum) : 0, coarse};
    // One at a time, now and then: the exact clock costs more than all the rest of this.
    constexpr std::uint32_t kEvery = 16;
    if (timed_ == 0 && !unlink && seqnum % kEvery == 0) {
        timed_ = seqnum;
        timed_since_ = now(CLOCK_MONOTONIC);
    }
}

bool Followed::Forget(std::uint32_t seqnum) {
    Command& command = PlaceOf(seqnum);
    if (!command.waiting || command.seqnum != seqnum) return false;
    command.waiting = false;
    if (seqnum == timed_) timed_ = 0;
    // What was unlinked gets no reply of its own any more.
    Command& other = PlaceOf(command.unlinks);
    if (command.unlinks != 0 && other.seqnum == command.unlinks) other.waiting = false;
    return command.out;
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
    std::int64_t oldest = INT64_MAX;
    for (const Command& command : commands_) {
        if (!command.waiting) continue;
        ++counts.outstanding;
        oldest = std::min(oldest, command.since);
    }
    if (counts.outstanding != 0) {
        counts.oldest = std::chrono::nanoseconds(now(CLOCK_MONOTONIC_COARSE) - oldest);
    }
    return counts;
}

}  // namespace xj_usbip
