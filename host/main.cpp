// xj-usbip-host: the reference host of the module.

#include <unistd.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <sstream>

#include "host/Doctor.h"
#include "host/Host.h"
#include "host/Options.h"
#include "posix/Signals.h"
#include "posix/StandardStreams.h"

namespace {

constexpr int kCannotAttach = 4;

int examine(bool json) {
    const host::Examination found = host::Examine();
    if (json) {
        std::cout << host::ToJson(found) << '\n';
    } else {
        host::Report(found, std::cout);
    }
    return found.CanAttach() ? 0 : 1;
}

// If not, says why.
bool fit_to_attach() {
    const host::Examination found = host::Examine();
    if (found.CanAttach()) return true;
    std::ostringstream report;
    host::Report(found, report);
    report << "xj-usbip-host: not connected, since nothing could be attached; --no-check connects "
              "all the same\n";
    posix::Tell(STDERR_FILENO, report.str());
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        posix::ReserveStandardStreams();
        host::Options options;
        if (const auto status = host::ParseCommandLine(argc, argv, options)) return *status;
        if (options.doctor) return examine(options.json);
        std::signal(SIGPIPE, SIG_IGN);  // whoever reads our log may leave before us
        const posix::UniqueFd stop = posix::TakeSignals({SIGINT, SIGTERM});
        if (!options.question.command.empty()) return host::Ask(options.question, stop.Get());
        if (options.check && !fit_to_attach()) return kCannotAttach;
        return host::RunHost(options, stop.Get());
    } catch (const std::exception& error) {
        std::cerr << "xj-usbip-host: " << error.what() << '\n';
        return 1;
    }
}
