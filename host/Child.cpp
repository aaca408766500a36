#include "host/Child.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "host/Keeper.h"
#include "posix/Error.h"
#include "posix/Wait.h"

namespace host {
namespace {

constexpr int kEndMs = 3'000;  // twice what the keeper takes to end everything

bool make_pair(posix::UniqueFd& one, posix::UniqueFd& other) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
    one = posix::UniqueFd(ends[0]);
    other = posix::UniqueFd(ends[1]);
    return true;
}

}  // namespace

std::unique_ptr<Child> Child::Start(const std::string& command, posix::UniqueFd& stream,
                                    std::string& error) {
    posix::UniqueFd ours;
    posix::UniqueFd theirs;
    posix::UniqueFd control;
    posix::UniqueFd keepers;
    const bool paired = make_pair(ours, theirs) && make_pair(control, keepers);
    const pid_t keeper = paired ? ::fork() : -1;
    if (keeper < 0) {
        error = "cannot start the command: " + posix::ErrorText(errno);
        return nullptr;
    }
    if (keeper == 0) {
        Keep(command.c_str(), theirs.Get(), keepers.Get());
        ::_exit(0);
    }
    keepers = {};
    std::unique_ptr<Child> child(new Child(keeper, std::move(control)));
    child->pid_ = child->Hear(-1).value_or(-1);
    stream = std::move(ours);
    return child;
}

std::optional<int> Child::Hear(int timeout_ms) const {
    int number = 0;
    if (posix::WaitFor(control_.Get(), POLLIN, -1, timeout_ms) != posix::Wake::Ready ||
        ::recv(control_.Get(), &number, sizeof number, 0) != sizeof number) {
        return std::nullopt;
    }
    return number;
}

bool Child::Wait(int timeout_ms) {
    if (!status_ && (status_ = Hear(timeout_ms))) ::waitpid(keeper_, nullptr, 0);
    return status_.has_value();
}

std::string Child::End() {
    ::shutdown(control_.Get(), SHUT_WR);
    if (!Wait(kEndMs)) return "the command cannot be killed";
    if (WIFSIGNALED(*status_)) {
        return std::string("the command was ended by signal ") + ::strsignal(WTERMSIG(*status_));
    }
    return "the command ended with status " + std::to_string(WEXITSTATUS(*status_));
}

}  // namespace host
