#include "host/Child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "posix/Error.h"
#include "posix/Wait.h"

namespace host {
namespace {

constexpr int kGraceMs = 500;  // for each of: end of input, SIGTERM, SIGKILL

// Undoes what the host does to its own signals, since both survive into a new program.
class CleanSignals {
  public:
    CleanSignals() {
        ::posix_spawnattr_init(&attributes_);
        sigset_t none;
        sigemptyset(&none);
        ::posix_spawnattr_setsigmask(&attributes_, &none);
        sigset_t ignored;
        sigemptyset(&ignored);
        sigaddset(&ignored, SIGPIPE);
        ::posix_spawnattr_setsigdefault(&attributes_, &ignored);
        ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    CleanSignals(const CleanSignals&) = delete;
    CleanSignals& operator=(const CleanSignals&) = delete;
    ~CleanSignals() { ::posix_spawnattr_destroy(&attributes_); }

    const posix_spawnattr_t* Get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

}  // namespace

std::unique_ptr<Child> Child::Start(const std::string& command, posix::UniqueFd& stream,
                                    std::string& error) {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        error = "cannot make a socket pair: " + posix::ErrorText(errno);
        return nullptr;
    }
    posix::UniqueFd ours(pair[0]);
    const posix::UniqueFd theirs(pair[1]);

    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_adddup2(&files, theirs.Get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&files, theirs.Get(), STDOUT_FILENO);
    const CleanSignals signals;
    std::string text = command;  // the argument vector wants writable characters
    char shell[] = "/bin/sh";
    char option[] = "-c";
    char* const arguments[] = {shell, option, text.data(), nullptr};
    pid_t pid = -1;
    const int failure = ::posix_spawn(&pid, shell, &files, signals.Get(), arguments, environ);
    ::posix_spawn_file_actions_destroy(&files);
    if (failure != 0) {
        error = "cannot run /bin/sh: " + posix::ErrorText(failure);
        return nullptr;
    }
    // Not the function: its header in glibc 2.36 is not for C++.
    posix::UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    std::unique_ptr<Child> child(new Child(pid, std::move(pidfd)));
    if (!child->pidfd_) {
        error = "cannot watch the command: " + posix::ErrorText(errno);
        return nullptr;
    }
    stream = std::move(ours);
    return child;
}

bool Child::Wait(int timeout_ms) {
    if (status_) return true;
    posix::WaitFor(pidfd_.Get(), POLLIN, -1, timeout_ms);
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
    status_ = status;
    return true;
}

std::string Child::End() {
    for (const int signal : {SIGTERM, SIGKILL}) {
        if (Wait(kGraceMs)) break;
        ::kill(pid_, signal);
    }
    if (!Wait(kGraceMs)) return "the command cannot be killed";
    if (WIFSIGNALED(*status_)) {
        return std::string("the command was ended by signal ") + ::strsignal(WTERMSIG(*status_));
    }
    return "the command ended with status " + std::to_string(WEXITSTATUS(*status_));
}

}  // namespace host
