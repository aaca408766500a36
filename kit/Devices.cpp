#include "xj-client-usbip/kit/Devices.h"

#include <array>
#include <cstdio>

namespace xj_usbip {

std::string_view SpeedName(std::uint32_t speed) {
    constexpr std::array<std::string_view, 7> kNames{"unknown speed",   "low speed", "full speed",
                                                     "high speed",      "wireless",  "super speed",
                                                     "super speed plus"};
    return kNames[speed < kNames.size() ? speed : 0];
}

std::string Describe(const RemoteDevice& device) {
    char ids[sizeof "1d6b:0104"];
    std::snprintf(ids, sizeof ids, "%04x:%04x", device.vendor, device.product);
    std::string name = device.instance;
    if (name.ends_with(std::string(" ") + ids)) name.resize(name.size() - sizeof ids);
    return (name.empty() ? "device " + std::to_string(device.id) : name) + " (" + ids + ", " +
           std::string(SpeedName(device.speed)) + ")";
}

}  // namespace xj_usbip
