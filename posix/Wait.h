// Waiting that a request to stop always ends.
//
// `stop` is, throughout, a descriptor that becomes readable and stays so when the program
// is to end. Nobody reads it, so everybody who waits sees it.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>

#include <system_error>

#include "posix/Error.h"
#include "posix/UniqueFd.h"

namespace posix {

enum class Wake { Ready, Stopped, TimedOut };

// Waits until `fd` has one of `events` (an error or hang-up counts too), `stop` is readable or
// `timeout_ms` have passed; -1 waits without limit. A negative `fd` is never ready.
inline Wake WaitFor(int fd, short events, int stop, int timeout_ms) {
    pollfd watched[] = {{stop, POLLIN, 0}, {fd, events, 0}};
    const int ready = Retry([&] { return ::poll(watched, 2, timeout_ms); });
    if (watched[0].revents != 0) return Wake::Stopped;
    return ready > 0 ? Wake::Ready : Wake::TimedOut;
}

// A descriptor that eventfd_write makes readable. Throws when there is none to be had: without it
// there would be no waiting for what it announces.
inline UniqueFd MakeEvent() {
    UniqueFd event(::eventfd(0, EFD_CLOEXEC));
    if (!event) throw std::system_error(errno, std::generic_category(), "eventfd");
    return event;
}

inline bool IsStopped(int stop) {
    return WaitFor(-1, 0, stop, 0) == Wake::Stopped;
}

}  // namespace posix
