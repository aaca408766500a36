// The life of the program: one module, one stream after the other.
#pragma once

#include <chrono>

#include "host/Options.h"

namespace host {

// The pauses between streams: they double while no remote side is reached.
class Backoff {
  public:
    static constexpr std::chrono::seconds kFirst{1};
    static constexpr std::chrono::seconds kLongest{30};

    // The pause to make after a stream; `reached` says whether it led to a remote side.
    std::chrono::seconds Next(bool reached);

  private:
    std::chrono::seconds next_ = kFirst;
};

// How long a peer that accepts the connection may be silent. A command has more time, since it may
// wait for a password; that it is silent is said as early.
inline constexpr std::chrono::seconds kLongestSilence{8};

// Returns the exit status: 0 after a stop (see Wait.h), 1 when there is no module or no stream, 3
// when there is somebody else instead of a remote side, 4 when none of the devices that came could
// be attached, 5 when all were refused. Every device is detached and every thread and child process
// gone when it returns.
int RunHost(const Options& options, int stop, std::chrono::milliseconds patience = kLongestSilence);

}  // namespace host
