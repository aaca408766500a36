#include "remote/Offers.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <utility>

#include "remote/bridge/UsbipDevice.h"
#include "remote/bridge/UsbipServer.h"
#include "remote/disk/DiskDescriptors.h"
#include "remote/disk/DiskImage.h"
#include "remote/disk/DiskSerial.h"
#include "remote/disk/UsbDisk.h"

namespace remote {
namespace {

constexpr int kNoStop = -1;

bool is_numeric(const std::string& name) {
    in6_addr address{};
    return inet_pton(AF_INET, name.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, name.c_str(), &address) == 1;
}

}  // namespace

std::unique_ptr<Device> MakeDisk(const DiskOption& option, std::uint32_t number,
                                 std::string& error) {
    std::optional<DiskImage> image = DiskImage::Open(option.path, option.read_only, error);
    if (!image) return nullptr;
    char ids[16];
    std::snprintf(ids, sizeof ids, "%04x:%04x", kDiskVendor, kDiskProduct);
    const std::string instance = "disk" + std::to_string(number) + " " +
                                 std::filesystem::path(option.path).filename().string() + " " + ids;
    return std::make_unique<UsbDisk>(std::move(*image), option.speed, instance,
                                     DiskSerial(option.path, MachineName()));
}

std::unique_ptr<Device> MakeImport(const UsbipOption& option, bool wait, int stop,
                                   std::string& error) {
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
    if (!server) return nullptr;
    return std::make_unique<UsbipDevice>(std::move(*server), option.busid, wait);
}

std::unique_ptr<Device> MakeImportNow(const UsbipOption& option, bool wait, std::string& error) {
    if (!is_numeric(option.server.name)) {
        error = "'" + option.server.name + "' is no address";
        return nullptr;
    }
    std::optional<UsbipServer> server = UsbipServer::Resolve(option.server, kNoStop, error);
    if (!server) return nullptr;
    return std::make_unique<UsbipDevice>(std::move(*server), option.busid, wait);
}

}  // namespace remote
