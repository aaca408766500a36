#include "xj-client-usbip/kit/Ports.h"

#include <filesystem>

#include "kit/Sysfs.h"
#include "wire/VhciStatus.h"

namespace xj_usbip {
namespace {

constexpr int kMostControllers = 128;  // the most that CONFIG_USBIP_VHCI_NR_HCS can be set to

std::string driver(const std::string& sysfs) {
    return sysfs + kController + "0";
}

// The kernel keeps to itself which device a port has until that has an address. The module has
// written it into the record in which the kernel's own tools look for names.
std::uint32_t recorded_id(const std::string& sysfs, int port) {
    const auto records = std::filesystem::path(sysfs).parent_path() / "var/run/vhci_hcd";
    std::ifstream record(records / ("port" + std::to_string(port)));
    std::string host;
    std::string service;
    std::uint32_t bus = 0;
    char dash = 0;
    std::uint32_t device = 0;
    record >> host >> service >> bus >> dash >> device;
    return record && dash == '-' ? bus << 16 | device : 0;
}

}  // namespace

std::vector<UsedPort> UsedPorts(const std::string& sysfs) {
    std::vector<UsedPort> ports;
    for (int controller = 0; controller < kMostControllers; ++controller) {
        const std::string suffix = controller == 0 ? "" : "." + std::to_string(controller);
        std::ifstream status(driver(sysfs) + "/status" + suffix);
        std::string line;
        if (!std::getline(status, line)) break;  // the header
        while (std::getline(status, line)) {
            const VhciPortLine port = ParseVhciPortLine(line);
            if (!port.Complete() || port.Free()) continue;
            const std::string local = port.lbusid;
            const auto state = static_cast<std::uint32_t>(port.status);
            const std::uint32_t id =
                state == VDEV_ST_NOTASSIGNED ? recorded_id(sysfs, port.port) : port.devid;
            ports.push_back({port.port, id, local == "0-0" ? "" : local});
        }
    }
    return ports;
}

bool DetachPort(const std::string& sysfs, int number, std::string& error) {
    return WriteAttribute(driver(sysfs) + "/detach", std::to_string(number), error);
}

bool Gate::Close(const std::string& sysfs, std::string& error) {
    namespace fs = std::filesystem;
    std::error_code none;
    const auto driver_name =
        std::string(kController).substr(std::string(kController).rfind('/') + 1);
    for (const auto& controller : fs::directory_iterator(sysfs + "/devices/platform", none)) {
        if (!controller.path().filename().string().starts_with(driver_name)) continue;
        for (const auto& hub : fs::directory_iterator(controller.path(), none)) {
            const std::string file = hub.path().string() + "/authorized_default";
            const std::string before = ReadAttribute(file);
            if (before.empty()) continue;
            if (!WriteAttribute(file, "0", error)) return false;
            hubs_.push_back({file, before});
        }
    }
    if (hubs_.empty()) error = sysfs + kController + "*: there is no root hub";
    return !hubs_.empty();
}

Gate::~Gate() {
    std::string ignored;  // the driver may be gone
    for (const Hub& hub : hubs_)
        WriteAttribute(hub.file, hub.before, ignored);
}

}  // namespace xj_usbip
