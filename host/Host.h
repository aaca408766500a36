// The life of the program: one module, one stream after the other.
#pragma once

#include <chrono>

#include "host/Options.h"

namespace host {

// The pauses between streams: they double while streams cannot be opened or die young.
class Backoff {
  public:
    static constexpr std::chrono::seconds kFirst{1};
    static constexpr std::chrono::seconds kLongest{30};
    static constexpr std::chrono::seconds kSettled{30};  // a stream that lived so long was good

    // The pause to make after a stream that lived for `lived` (0: it never opened).
    std::chrono::seconds Next(std::chrono::steady_clock::duration lived);

  private:
    std::chrono::seconds next_ = kFirst;
};

// Returns the exit status: 0 after a stop (see Wait.h), 1 when there is no module or no stream.
// Every device is detached and every thread and child process gone when it returns.
int RunHost(const Options& options, int stop);

}  // namespace host
