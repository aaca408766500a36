// What the host says, as far as the user wants to know. Any thread.
#pragma once

#include <set>
#include <string_view>

#include "host/Options.h"
#include "posix/Log.h"

namespace host {

class Log {
  public:
    explicit Log(Verbosity verbosity) : verbosity_(verbosity) {}

    void Fail(std::string_view text) const { Say(posix::Severity::Failure, text); }
    void Note(std::string_view text) const {
        if (verbosity_ >= Verbosity::Normal) Say(posix::Severity::Notice, text);
    }
    void Detail(std::string_view text) const {
        if (verbosity_ >= Verbosity::Verbose) Say(posix::Severity::Detail, text);
    }

    // The levels of the module's lines that are wanted; see HostAbi.h.
    std::set<int> ModuleLevels() const {
        if (verbosity_ == Verbosity::Debug) return {1, kFailures, 8};
        if (verbosity_ == Verbosity::Verbose) return {1, kFailures};
        return {};
    }
    void Module(int level, std::string_view text) const {
        posix::Say("module",
                   level == kFailures ? posix::Severity::Failure : posix::Severity::Detail, text);
    }

  private:
    static constexpr int kFailures = 4;

    static void Say(posix::Severity severity, std::string_view text) {
        posix::Say("xj-usbip-host", severity, text);
    }

    const Verbosity verbosity_;
};

}  // namespace host
