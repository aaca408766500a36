// What is known of one mapped device: what has passed, and what is under way.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "wire/UsbipPdu.h"
#include "xj-client-usbip/kit/Devices.h"

namespace xj_usbip {

// Any thread.
class Followed {
  public:
    explicit Followed(RemoteDevice described) : device(std::move(described)) {}

    // A command of `size` bytes leaves; `on_stream` counts the whole message around it.
    void OnCommand(const usbip_header& header, std::uint64_t size, std::uint64_t on_stream,
                   bool compressed);

    // A reply comes. Returns its size, or 0 when nothing sensible follows such a header.
    std::uint64_t OnReply(const usbip_header& header, std::uint64_t on_stream, bool compressed);

    DeviceCounts Counts() const;

    const RemoteDevice device;

  private:
    struct Command {
        std::uint32_t seqnum = 0;
        bool waiting = false;
        bool out = false;
        std::uint32_t unlinks = 0;  // the number of another command; 0: it is none of those
        std::int64_t since = 0;     // coarse, nanoseconds
    };

    // More are not under way at any sensible device: those that are never answered are forgotten
    // when others come to their places.
    static constexpr std::size_t kMostWaiting = 1024;

    Command& PlaceOf(std::uint32_t seqnum) { return commands_[seqnum % kMostWaiting]; }
    // Forgets the command of this number, if there is one. True: it was OUT.
    bool Forget(std::uint32_t seqnum);

    mutable std::mutex mutex_;
    DeviceCounts counts_;  // guarded by mutex_; but for what commands_ tells
    // Guarded by mutex_. Numbers are consecutive, so that each has a place of its own.
    std::vector<Command> commands_{kMostWaiting};
    std::uint32_t timed_ = 0;       // guarded by mutex_: the command whose reply is timed; 0: none
    std::int64_t timed_since_ = 0;  // guarded by mutex_: exact, nanoseconds
};

}  // namespace xj_usbip
