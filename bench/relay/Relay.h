// A process of its own that relays, so that what it costs can be told from what the traffic costs.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "posix/UniqueFd.h"

// Of the process, since it began.
struct Counts {
    double cpu = 0;  // seconds
    double switches = 0;
    double faults = 0;
    double system_calls = -1;  // negative: not counted
    double allocations = -1;
};

// How it is started.
struct RelayOptions {
    std::string what;  // a library, maybe with kTapped before it, or kLean
    std::uint32_t devices = 1;
    bool counted = false;              // system calls and allocations, too, which costs time
    std::vector<std::string> wrapper;  // the program that runs it, with arguments
};
inline const std::string kLean = "lean";
inline const std::string kTapped = "tapped:";  // its stream goes through the kit's tap

class Relay {
  public:
    // With its devices mapped.
    explicit Relay(const RelayOptions& options);
    ~Relay();  // ends it, and requires that it ends well
    Relay(const Relay&) = delete;

    Counts Count() const;
    int Stream() const { return stream_.Get(); }  // the remote side's end
    std::vector<int> Kernels() const;             // the kernel's ends, by device

  private:
    pid_t process_ = -1;
    posix::UniqueFd control_, stream_;
    std::vector<posix::UniqueFd> kernels_;
};

// The process itself: what main does with arguments that Relay has given it. Returns its status.
int ServeRelay(const std::vector<std::string>& arguments);
inline const std::string kServe = "serve";
