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

    pid_t Pid() const { return pid_; }  // the shell's

    // Waits for the end of the command and of all that it started; false when something of it still
    // runs after `timeout_ms`.
    bool Wait(int timeout_ms);

    // Waits a moment for the command, which has seen the end of its input if our end of the pair
    // is closed or shut down, then has it terminated and at last killed. At most three short waits.
    // Returns how it ended, in words.
    std::string End();

  private:
    Child(pid_t keeper, posix::UniqueFd control) : keeper_(keeper), control_(std::move(control)) {}

    // The next number from the keeper (see Keeper.h). Nothing: there is none in time.
    std::optional<int> Hear(int timeout_ms) const;

    const pid_t keeper_;
    const posix::UniqueFd control_;
    pid_t pid_ = -1;
    std::optional<int> status_;  // as from waitpid, once nothing is left
};

}  // namespace host
