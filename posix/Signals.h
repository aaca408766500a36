// Signals as events that a thread can wait for.
#pragma once

#include <sys/signalfd.h>

#include <csignal>
#include <initializer_list>
#include <system_error>

#include "posix/Error.h"
#include "posix/UniqueFd.h"

namespace posix {

// Blocks these signals, for every thread started later too, and returns the non-blocking descriptor
// on which they arrive. It stays readable while nobody takes them off it.
inline UniqueFd TakeSignals(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals)
        sigaddset(&set, signal);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    UniqueFd descriptor(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!descriptor) throw std::system_error(errno, std::generic_category(), "signalfd");
    return descriptor;
}

}  // namespace posix
