// xj-usbip-host: the reference host of the module.

#include <csignal>
#include <exception>
#include <iostream>

#include "host/Doctor.h"
#include "host/Host.h"
#include "host/Options.h"
#include "posix/Signals.h"
#include "posix/StandardStreams.h"

int main(int argc, char** argv) {
    try {
        posix::ReserveStandardStreams();
        host::Options options;
        if (const auto status = host::ParseCommandLine(argc, argv, options)) return *status;
        if (options.doctor) return host::Doctor(std::cout) ? 0 : 1;
        std::signal(SIGPIPE, SIG_IGN);  // whoever reads our log may leave before us
        const posix::UniqueFd stop = posix::TakeSignals({SIGINT, SIGTERM});
        return host::RunHost(options, stop.Get());
    } catch (const std::exception& error) {
        std::cerr << "xj-usbip-host: " << error.what() << '\n';
        return 1;
    }
}
