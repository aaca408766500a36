// xj-usbip-remote: the reference remote side.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "posix/Listener.h"
#include "posix/Signals.h"
#include "posix/StandardStreams.h"
#include "posix/Wait.h"
#include "remote/Ask.h"
#include "remote/Control.h"
#include "remote/Offers.h"
#include "remote/Options.h"
#include "remote/Server.h"
#include "remote/bridge/DeviceTable.h"
#include "remote/bridge/UsbipServer.h"
#include "remote/io/Log.h"

namespace remote {
namespace {

int list(const posix::Address& address) {
    constexpr int kNoStop = -1;  // signals still end the program
    std::string error;
    const std::optional<UsbipServer> server = UsbipServer::Resolve(address, kNoStop, error);
    const auto devices = server ? server->List(kNoStop, error) : std::nullopt;
    if (!devices) {
        Log("cannot list devices: %s", error.c_str());
        return EXIT_FAILURE;
    }
    std::fputs(DeviceTable(*devices).c_str(), stdout);
    return EXIT_SUCCESS;
}

// Makes a descriptor non-blocking for as long as this lives: others may share it with us.
class NonBlocking {
  public:
    explicit NonBlocking(int fd) : fd_(fd), flags_(fcntl(fd, F_GETFL)) {
        fcntl(fd_, F_SETFL, flags_ | O_NONBLOCK);
    }
    ~NonBlocking() { fcntl(fd_, F_SETFL, flags_); }
    NonBlocking(const NonBlocking&) = delete;
    NonBlocking& operator=(const NonBlocking&) = delete;

  private:
    int fd_;
    int flags_;
};

bool serve_stdio(Server& server) {
    const NonBlocking input(STDIN_FILENO);
    const NonBlocking output(STDOUT_FILENO);
    return server.Run({posix::UniqueFd(dup(STDIN_FILENO)), posix::UniqueFd(dup(STDOUT_FILENO))});
}

bool serve_listener(Server& server, const posix::Address& address) {
    std::string error;
    const std::unique_ptr<posix::Listener> listener = posix::Listener::Open(address, error);
    if (!listener) {
        Log("cannot listen at %s: %s", posix::Describe(address).c_str(), error.c_str());
        return false;
    }
    if (!listener->Private()) {
        Log("WARNING: %s can be reached from other machines, and the channel has no "
            "authentication: whoever connects can use the devices",
            listener->Name().c_str());
    }
    posix::Tell(STDOUT_FILENO, "listening on " + listener->Name() + '\n');
    return server.Run(*listener);
}

// What the C library gives back to the system after a long PDU is faulted in again by the next one.
void keep_memory() {
    constexpr int kMiB = 1 << 20;
    mallopt(M_MMAP_THRESHOLD, 16 * kMiB);
    mallopt(M_TRIM_THRESHOLD, 64 * kMiB);
}

int run(const Options& options) {
    if (options.list) return list(*options.list);
    std::signal(SIGPIPE, SIG_IGN);  // a host that goes away is a failed write, not a signal
    std::signal(SIGTTIN, SIG_IGN);  // and so is a terminal that other jobs read from
    const posix::UniqueFd stop = posix::TakeSignals({SIGINT, SIGTERM});
    if (!options.question.command.empty()) return Ask(options.question, stop.Get());
    keep_memory();
    const posix::UniqueFd signals = posix::TakeSignals({SIGINT, SIGTERM, SIGUSR1});
    std::vector<std::unique_ptr<Device>> devices;
    for (const DiskOption& option : options.disks) {
        std::string error;
        auto disk = MakeDisk(option, static_cast<std::uint32_t>(devices.size()) + 1, error);
        if (!disk) {
            Log("%s", error.c_str());
            return EXIT_FAILURE;
        }
        devices.push_back(std::move(disk));
    }
    for (const UsbipOption& option : options.imports) {
        std::string error;
        auto device = MakeImport(option, options.wait, stop.Get(), error);
        if (!device && !posix::IsStopped(stop.Get())) Log("%s", error.c_str());
        if (device) devices.push_back(std::move(device));
    }
    if (posix::IsStopped(stop.Get())) return EXIT_SUCCESS;
    std::unique_ptr<Control> control;
    if (!options.control.empty()) {
        std::string error;
        control = Control::Open(options.control, options.wait, error);
        if (!control) {
            Log("%s", error.c_str());
            return EXIT_FAILURE;
        }
    }
    if (devices.empty() && !control) {
        Log("there is no device to offer");
        return EXIT_FAILURE;
    }
    const int commands = options.listen ? STDIN_FILENO : -1;
    Server server(std::move(devices), options.compress,
                  {signals.Get(), commands, STDOUT_FILENO, control.get()});
    const bool served =
        options.listen ? serve_listener(server, *options.listen) : serve_stdio(server);
    server.ReportCounters();
    return served ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace remote

int main(int argc, char** argv) {
    try {
        posix::ReserveStandardStreams();
        remote::Options options;
        if (const auto status = remote::ParseCommandLine(argc, argv, options)) return *status;
        return remote::run(options);
    } catch (const std::exception& error) {
        remote::Log("fatal: %s", error.what());
        return EXIT_FAILURE;
    }
}
