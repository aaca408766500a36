// xj-usbip-host: the reference host of the module.

#include <sys/signalfd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <system_error>

#include "host/Doctor.h"
#include "host/Host.h"
#include "host/Options.h"

namespace {

// Blocks the two stop signals, for every thread started later too, and returns the descriptor on
// which they arrive. They are never taken off it, so that it stays readable after the first.
posix::UniqueFd block_stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    posix::UniqueFd stop(::signalfd(-1, &signals, SFD_CLOEXEC));
    if (!stop) throw std::system_error(errno, std::generic_category(), "signalfd");
    return stop;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        host::Options options;
        if (const auto status = host::ParseCommandLine(argc, argv, options)) return *status;
        if (options.doctor) return host::Doctor(std::cout) ? 0 : 1;
        std::signal(SIGPIPE, SIG_IGN);  // whoever reads our log may leave before us
        const posix::UniqueFd stop = block_stop_signals();
        return host::RunHost(options, stop.Get());
    } catch (const std::exception& error) {
        std::cerr << "xj-usbip-host: " << error.what() << '\n';
        return 1;
    }
}
