// A command whose standard input and output are the stream.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "posix/UniqueFd.h"

namespace host {

// Runs `/bin/sh -c COMMAND` in our process group, so that it may ask for a password on the
// terminal and Ctrl-C reaches it too; its standard error is ours. Used by one thread.
class Child {
  public:
    // `stream` receives our end of the socket pair. Null and an `error` when it cannot start.
    static std::unique_ptr<Child> Start(const std::string& command, posix::UniqueFd& stream,
                                        std::string& error);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { End(); }

    pid_t Pid() const { return pid_; }

    // Waits for the end of the command; false when it still runs after `timeout_ms`.
    bool Wait(int timeout_ms);

    // Waits a moment for the command, which has seen the end of its input if our end of the pair
    // is closed or shut down, then terminates and at last kills it. At most three short waits.
    // Returns how it ended, in words.
    std::string End();

  private:
    Child(pid_t pid, posix::UniqueFd pidfd) : pid_(pid), pidfd_(std::move(pidfd)) {}

    const pid_t pid_;
    const posix::UniqueFd pidfd_;
    std::optional<int> status_;  // as from waitpid, once reaped
};

}  // namespace host
