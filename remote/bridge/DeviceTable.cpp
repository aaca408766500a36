#include "remote/bridge/DeviceTable.h"

#include <algorithm>
#include <cstdio>

namespace remote {
namespace {

const char* speed_name(UsbSpeed speed) {
    switch (speed) {
        case UsbSpeed::kLow:
            return "low";
        case UsbSpeed::kFull:
            return "full";
        case UsbSpeed::kHigh:
            return "high";
        case UsbSpeed::kWireless:
            return "wireless";
        case UsbSpeed::kSuper:
            return "super";
    }
    return "";
}

// As usb.org assigns the codes. Null: the class is told by others (the interfaces) or unknown.
const char* class_name(std::uint8_t code) {
    static constexpr struct {
        std::uint8_t code;
        const char* name;
    } kNames[] = {{0x01, "audio"},        {0x02, "communication"}, {0x03, "HID"},
                  {0x05, "physical"},     {0x06, "image"},         {0x07, "printer"},
                  {0x08, "mass storage"}, {0x09, "hub"},           {0x0A, "CDC data"},
                  {0x0B, "smart card"},   {0x0E, "video"},         {0xE0, "wireless"},
                  {0xFE, "application"},  {0xFF, "vendor"}};
    for (const auto& one : kNames) {
        if (one.code == code) return one.name;
    }
    return nullptr;
}

std::string class_names(std::vector<std::uint8_t> classes) {
    std::sort(classes.begin(), classes.end());
    classes.erase(std::unique(classes.begin(), classes.end()), classes.end());
    std::string names;
    for (const std::uint8_t code : classes) {
        const char* name = class_name(code);
        if (name != nullptr) names += (names.empty() ? "" : ", ") + std::string(name);
    }
    return names.empty() ? "-" : names;
}

}  // namespace

std::string UsbIdText(std::uint16_t vendor, std::uint16_t product) {
    char text[16];
    std::snprintf(text, sizeof text, "%04x:%04x", vendor, product);
    return text;
}

std::string DeviceTable(const std::vector<ServedDevice>& devices) {
    if (devices.empty()) return "no devices\n";
    std::string table;
    const auto add = [&table](const std::string& busid, const std::string& ids, const char* speed,
                              const std::string& classes) {
        char line[256];
        std::snprintf(line, sizeof line, "%-12s  %-9s  %-8s  %s\n", busid.c_str(), ids.c_str(),
                      speed, classes.c_str());
        table += line;
    };
    add("BUS ID", "VID:PID", "SPEED", "CLASS");
    for (const ServedDevice& device : devices) {
        add(device.busid, UsbIdText(device.vendor, device.product), speed_name(device.speed),
            class_names(device.classes));
    }
    return table;
}

}  // namespace remote
