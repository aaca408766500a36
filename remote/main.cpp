// xj-usbip-remote: the reference remote side.
#include <fcntl.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "remote/Options.h"
#include "remote/Server.h"
#include "remote/bridge/DeviceTable.h"
#include "remote/bridge/UsbipDevice.h"
#include "remote/bridge/UsbipServer.h"
#include "remote/disk/DiskDescriptors.h"
#include "remote/disk/DiskImage.h"
#include "remote/disk/UsbDisk.h"
#include "remote/io/Listener.h"
#include "remote/io/Log.h"

namespace remote {
namespace {

// Signals become readable events; a host that goes away is a failed write, not a signal.
posix::UniqueFd take_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int one : {SIGINT, SIGTERM, SIGUSR1})
        sigaddset(&signals, one);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return posix::UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Stays the same for an image, so that the host recognises the disk.
std::string serial_of(const std::string& path) {
    std::error_code ignored;
    const std::string full = std::filesystem::weakly_canonical(path, ignored).string();
    std::uint64_t hash = 0xCBF29CE484222325;  // FNV-1a, 64 bits
    for (const char c : full)
        hash = (hash ^ static_cast<std::uint8_t>(c)) * 0x100000001B3;
    char text[17];
    std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(hash));
    return text;
}

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
                                     serial_of(option.path));
}

// Null when there is no such device to be had now and nobody wants to wait for it; logged.
std::unique_ptr<Device> make_import(const UsbipOption& option, bool wait) {
    std::string error;
    std::optional<UsbipServer> server = UsbipServer::Resolve(option.server, error);
    if (server && !wait) {
        const auto devices = server->List(error);
        const bool there = devices && std::any_of(devices->begin(), devices->end(),
                                                  [&option](const ServedDevice& device) {
                                                      return device.busid == option.busid;
                                                  });
        if (devices && !there) {
            error = option.server + " does not offer device " + option.busid +
                    " (not shared, or in use)";
        }
        if (!there) server.reset();
    }
    if (!server) {
        Log("%s", error.c_str());
        return nullptr;
    }
    return std::make_unique<UsbipDevice>(std::move(*server), option.busid, wait);
}

int list(const std::string& name) {
    std::string error;
    const std::optional<UsbipServer> server = UsbipServer::Resolve(name, error);
    const auto devices = server ? server->List(error) : std::nullopt;
    if (!devices) {
        Log("cannot list the devices of %s", error.c_str());
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

bool serve_listener(Server& server, const std::string& address) {
    std::string error;
    const std::unique_ptr<Listener> listener = Listener::Open(address, error);
    if (!listener) {
        Log("cannot listen at %s", error.c_str());
        return false;
    }
    if (!listener->Private()) {
        Log("WARNING: %s can be reached from other machines, and the channel has no "
            "authentication: whoever connects can use the devices",
            listener->Name().c_str());
    }
    std::printf("listening on %s\n", listener->Name().c_str());
    std::fflush(stdout);
    return server.Run(*listener);
}

int run(const Options& options) {
    if (!options.list.empty()) return list(options.list);
    const posix::UniqueFd signals = take_signals();
    std::vector<std::unique_ptr<Device>> devices;
    for (const DiskOption& option : options.disks) {
        auto disk = make_disk(option, devices.size() + 1);
        if (!disk) return EXIT_FAILURE;
        devices.push_back(std::move(disk));
    }
    for (const UsbipOption& option : options.imports) {
        auto device = make_import(option, options.wait);
        if (device) devices.push_back(std::move(device));
    }
    if (devices.empty()) {
        Log("there is no device to offer");
        return EXIT_FAILURE;
    }
    const bool stdio = options.listen.empty();
    const int commands = stdio ? -1 : STDIN_FILENO;
    Server server(std::move(devices), options.compress, {signals.Get(), commands, STDOUT_FILENO});
    const bool served = stdio ? serve_stdio(server) : serve_listener(server, options.listen);
    server.ReportCounters();
    return served ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace remote

int main(int argc, char** argv) {
    try {
        int exit_code = EXIT_SUCCESS;
        const auto options = remote::ParseOptions(argc, argv, exit_code);
        return options ? remote::run(*options) : exit_code;
    } catch (const std::exception& error) {
        remote::Log("fatal: %s", error.what());
        return EXIT_FAILURE;
    }
}
