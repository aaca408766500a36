// The command line.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "host/Connect.h"

namespace host {

struct Options {
    bool doctor = false;  // only look at this machine; the rest is then unused, but for `json`
    bool json = false;
    bool check = true;  // look at this machine first
    std::string module;
    std::set<int> log_levels;
    Target target;
    bool reconnect = false;
};

// The exit status, when the program is to end at once: help was shown, or the user told what is
// wrong.
std::optional<int> ParseCommandLine(int argc, const char* const* argv, Options& options);

}  // namespace host
