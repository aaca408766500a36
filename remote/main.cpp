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
#include "remote/Options.h"
#include "remote/Server.h"
#include "remote/bridge/DeviceTable.h"
#include "remote/bridge/UsbipDevice.h"
#include "remote/bridge/UsbipServer.h"
#include "remote/disk/DiskDescriptors.h"
#include "remote/disk/DiskImage.h"
#include "remote/disk/DiskSerial.h"
#include "remote/disk/UsbDisk.h"
#include "remote/io/Log.h"

namespace remote {
namespace {

std::unique_ptr<Device> make_disk(const DiskOption& option, std::size_t number) {
    std::string error;
    std::optional<DiskImage> image = DiskImage::Open(option.path, option.read_only, error);
    if (!image) {
        Log("%s", error.c_str());
        return nullptr;
    }
    char ids[16];
    std::snprintf(ids, sizeof ids, "%04x:%04x", kDiskVendor, kDiskProduct);
    const std::string instance = "disk" + std::to_string(number) + " " +
                                 std::filesystem::path(option.path).filename().string() + " " + ids;
    return std::make_unique<UsbDisk>(std::move(*image), option.speed, instance,
                                     DiskSerial(option.path, MachineName()));
}

// Null when there is no such device to be had now and nobody wants to wait for it; logged. Null
// soon after `stop` becomes readable.
std::unique_ptr<Device> make_import(const UsbipOption& option, bool wait, int stop) {
    std::string error;
    std::optional<UsbipServer> server = UsbipServer::Resolve(option.server, stop, error);
    if (server && !wait) {
        const auto devices = server->List(stop, error);
        const bool there = devices && std::any_of(devices->begin(), devices->end(),
                                                  [&option](const ServedDevice& device) {
                                                      return device.busid == option.busid;
                                                  });
        if (devices && !there) {
            error = server->Name() + " does not offer device " + option.busid +
                    " (not shared, or in use)";
        }
        if (!there) server.reset();
    }
    if (!server) {
        if (!posix::IsStopped(stop)) Log("%s", error.c_str());
        return nullptr;
    }
    return std::make_unique<UsbipDevice>(std::move(*server), option.busid, wait);
}

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
    keep_memory();
    std::signal(SIGPIPE, SIG_IGN);  // a host that goes away is a failed write, not a signal
    std::signal(SIGTTIN, SIG_IGN);  // and so is a terminal that other jobs read from
    const posix::UniqueFd stop = posix::TakeSignals({SIGINT, SIGTERM});
    const posix::UniqueFd signals = posix::TakeSignals({SIGINT, SIGTERM, SIGUSR1});
    std::vector<std::unique_ptr<Device>> devices;
    for (const DiskOption& option : options.disks) {
        auto disk = make_disk(option, devices.size() + 1);
        if (!disk) return EXIT_FAILURE;
        devices.push_back(std::move(disk));
    }
    for (const UsbipOption& option : options.imports) {
        auto device = make_import(option, options.wait, stop.Get());
        if (device) devices.push_back(std::move(device));
    }
    if (posix::IsStopped(stop.Get())) return EXIT_SUCCESS;
    if (devices.empty()) {
        Log("there is no device to offer");
        return EXIT_FAILURE;
    }
    const int commands = options.listen ? STDIN_FILENO : -1;
    Server server(std::move(devices), options.compress, {signals.Get(), commands, STDOUT_FILENO});
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
