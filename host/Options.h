// The command line.
#pragma once

#include <optional>
#include <string>

#include "host/Ask.h"
#include "host/Connect.h"
#include "host/Devices.h"

namespace host {

enum class Verbosity {
    Quiet,    // failures only
    Normal,   // what happens to the devices and the stream
    Verbose,  // and what the module does
    Debug,    // in all detail
};

struct Options {
    bool doctor = false;  // only look at this machine; the rest is then unused, but for `json`
    bool json = false;
    Question question;  // only ask a host that runs
    bool check = true;  // look at this machine first
    std::string module;
    Verbosity verbosity = Verbosity::Normal;
    Target target;
    bool reconnect = false;
    Policy policy;
    std::optional<CaptureOrder> capture;
    std::uint32_t capture_data = 65'535;  // for `capture`, as is the next one
    std::uint32_t capture_mib = 0;        // 0: no limit
    std::string control;                  // path of the socket to answer at; empty: none

    std::string sysfs = "/sys";  // another one is for tests
};

// The exit status, when the program is to end at once: help was shown, or the user told what is
// wrong.
std::optional<int> ParseCommandLine(int argc, const char* const* argv, Options& options);

}  // namespace host
