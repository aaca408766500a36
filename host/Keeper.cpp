#include "host/Keeper.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <ctime>

namespace host {
namespace {

constexpr int kNoCommand = 127;  // as a shell says it
constexpr long kGraceMs = 500;   // for each step from here to the next
enum class Step { Running, InputEnded, Terminated, Killed };

// Undoes what the host does to its own signals, since both survive into a new program.
[[noreturn]] void run_shell(const char* command, int stream) {
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    std::signal(SIGPIPE, SIG_DFL);
    ::dup2(stream, STDIN_FILENO);
    ::dup2(stream, STDOUT_FILENO);
    ::execl("/bin/sh", "sh", "-c", command, nullptr);
    ::_exit(kNoCommand);
}

// None of them was waited for yet, so that no number belongs to somebody else meanwhile.
void signal_children(int signal) {
    char numbers[4096];
    const int file = ::open("/proc/thread-self/children", O_RDONLY | O_CLOEXEC);
    const ssize_t size = ::read(file, numbers, sizeof numbers);
    ::close(file);
    pid_t child = 0;
    for (ssize_t i = 0; i < size; ++i) {
        if (numbers[i] != ' ') {
            child = child * 10 + (numbers[i] - '0');
        } else {
            ::kill(child, signal);
            child = 0;
        }
    }
}

long now_ms() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

void Keep(const char* command, int stream, int control) {
    sigset_t all;  // nothing but SIGKILL ends us: Ctrl-C is for the host and the command
    ::sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, nullptr);
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);  // children of children that have ended become ours
    const pid_t shell = ::fork();
    if (shell == 0) run_shell(command, stream);
    ::send(control, &shell, sizeof shell, MSG_NOSIGNAL);
    ::dup2(control, STDIN_FILENO);
    ::close_range(STDIN_FILENO + 1, UINT_MAX, 0);
    sigset_t child;
    ::sigemptyset(&child);
    ::sigaddset(&child, SIGCHLD);
    const int ended = ::signalfd(-1, &child, 0);

    int status = W_EXITCODE(shell < 0 ? kNoCommand : 0, 0);
    long deadline = 0;  // of the step; while Running there is none
    Step step = Step::Running;
    const auto go = [&](Step next) {
        step = next;
        deadline = now_ms() + kGraceMs;
    };
    for (;;) {
        int how = 0;
        pid_t pid = 0;
        while ((pid = ::waitpid(-1, &how, WNOHANG)) > 0) {
            if (pid != shell) continue;
            status = how;
            if (step < Step::Terminated) go(Step::Terminated);
        }
        if (pid < 0) break;  // nobody is left
        if (step >= Step::Terminated) signal_children(step == Step::Killed ? SIGKILL : SIGTERM);
        const bool running = step == Step::Running;
        const long left = deadline - now_ms();
        pollfd watched[] = {{ended, POLLIN, 0}, {running ? STDIN_FILENO : -1, POLLIN, 0}};
        ::poll(watched, 2, running ? -1 : static_cast<int>(left > 0 ? left : 0));
        signalfd_siginfo info;
        if (watched[0].revents != 0 && ::read(ended, &info, sizeof info) < 0) break;
        if (running && watched[1].revents != 0) go(Step::InputEnded);
        if (!running && now_ms() >= deadline) {
            go(step == Step::InputEnded ? Step::Terminated : Step::Killed);
        }
    }
    ::send(STDIN_FILENO, &status, sizeof status, MSG_NOSIGNAL);
}

}  // namespace host
