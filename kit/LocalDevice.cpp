#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>
#include <set>

#include "kit/Sysfs.h"
#include "xj-client-usbip/kit/Ports.h"

namespace xj_usbip {
namespace {

namespace fs = std::filesystem;

std::string folder(const std::string& sysfs, const std::string& local) {
    return sysfs + "/bus/usb/devices/" + local;
}

// The value of `key` in a uevent file.
std::string value_of(const std::string& file, std::string_view key) {
    std::ifstream uevent(file);
    for (std::string line; std::getline(uevent, line);)
        if (line.starts_with(key)) return line.substr(key.size());
    return {};
}

// What nobody opens by hand, or what only repeats another node.
bool minor_node(const std::string& name, const std::string& type) {
    constexpr std::array<std::string_view, 6> kMinor{"bus/usb/",    "bsg/",        "sg",
                                                     "snd/control", "input/mouse", "usbmon"};
    return type == "partition" || std::ranges::any_of(kMinor, [&](std::string_view start) {
               return name.starts_with(start);
           });
}

std::set<std::string> nodes_in(const fs::path& device) {
    std::set<std::string> nodes;
    std::error_code gone;  // a device may vanish at any moment
    for (fs::recursive_directory_iterator entry(device, gone), end; !gone && entry != end;
         entry.increment(gone)) {
        if (entry->path().filename() != "uevent") continue;
        const std::string file = entry->path().string();
        const std::string name = value_of(file, "DEVNAME=");
        if (!name.empty() && !minor_node(name, value_of(file, "DEVTYPE="))) {
            nodes.insert("/dev/" + name);
        }
        const std::string network = value_of(file, "INTERFACE=");  // USB's own has numbers
        if (!network.empty() && network.find('/') == std::string::npos) nodes.insert(network);
    }
    return nodes;
}

}  // namespace

std::optional<LocalDevice> FindLocalDevice(const std::string& sysfs, const std::string& local) {
    std::error_code gone;
    const fs::path device = fs::canonical(folder(sysfs, local), gone);
    if (gone) return std::nullopt;
    LocalDevice found;
    found.product = ReadAttribute(device / "product");
    found.authorized = ReadAttribute(device / "authorized") != "0";
    found.configured = !ReadAttribute(device / "bConfigurationValue").empty();
    std::set<std::string> drivers;
    for (fs::directory_iterator entry(device, gone), end; !gone && entry != end;
         entry.increment(gone)) {
        // "1-1:1.0" is an interface of "1-1".
        if (!entry->path().filename().string().starts_with(local + ":")) continue;
        const fs::path driver = fs::read_symlink(entry->path() / "driver", gone);
        if (!gone) drivers.insert(driver.filename());
        gone.clear();
    }
    found.drivers.assign(drivers.begin(), drivers.end());
    const std::set<std::string> nodes = nodes_in(device);
    found.nodes.assign(nodes.begin(), nodes.end());
    return found;
}

std::vector<UsbClass> InterfaceClasses(const std::string& sysfs, const std::string& local) {
    constexpr std::size_t kInterfaceSize = 9;  // bytes of an interface descriptor
    constexpr char kInterface = 4;             // its bDescriptorType
    std::ifstream file(folder(sysfs, local) + "/descriptors", std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    std::vector<UsbClass> classes;
    for (std::string_view rest = bytes; rest.size() >= 2;) {
        const std::size_t size = static_cast<unsigned char>(rest[0]);
        if (size < 2 || size > rest.size()) return {};
        if (rest[1] == kInterface && size >= kInterfaceSize) {
            const auto field = [&](std::size_t at) { return static_cast<std::uint8_t>(rest[at]); };
            classes.push_back({field(5), field(6), field(7)});
        }
        rest.remove_prefix(size);
    }
    return classes;
}

bool Authorize(const std::string& sysfs, const std::string& local, std::string& error) {
    return WriteAttribute(folder(sysfs, local) + "/authorized", "1", error);
}

}  // namespace xj_usbip
