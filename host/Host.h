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

// Returns the exit status: 0 after a stop (see Wait.h), 1 when there is no module or no stream.
// Every device is detached and every thread and child process gone when it returns.
int RunHost(const Options& options, int stop);

}  // namespace host
