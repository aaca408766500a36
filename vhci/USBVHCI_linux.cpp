// Finding the driver and reading the state of its ports.

#include "vhci/USBVHCI_linux.h"

#include <dirent.h>
#include <libudev.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "module/runtime/XJModLog.h"
#include "vhci/PortReservations.h"

namespace {

// The kernel builds vhci_hcd with at most 128 controllers of 2 x 15 ports.
constexpr int kMaxPorts = 128 * 30;

struct SpeedString {
    int speed;
    const char* text;  // of the sysfs attribute "speed"
    const char* description;
};
constexpr SpeedString speed_strings[] = {
    {0, "unknown", "Unknown Speed"}, {1, "1.5", "Low Speed(1.5Mbps)"},
    {2, "12", "Full Speed(12Mbps)"}, {3, "480", "High Speed(480Mbps)"},
    {4, "53.3-480", "Wireless"},     {5, "5000", "Super Speed(5000Mbps)"},
    {0, nullptr, nullptr},
};

int vhci_hcd_filter(const dirent* entry) {
    return std::strncmp(entry->d_name, "vhci_hcd.", 9) == 0;
}

int read_attr_value(udev_device* device, const char* name, const char* format) {
    const char* text = udev_device_get_sysattr_value(device, name);
    if (text == nullptr) {
        XJModLog(4, "[linuxvhci] read_attr_value udev_device_get_sysattr_value fail");
        return 0;
    }
    int value = 0;
    if (std::sscanf(text, format, &value) <= 0) {
        XJModLog(4, "[linuxvhci] read_attr_value sscanf failed for attribute %s", name);
        return 0;
    }
    return value;
}

std::uint32_t read_attr_speed(udev_device* device) {
    const char* text = udev_device_get_sysattr_value(device, "speed");
    if (text == nullptr) {
        XJModLog(4, "[linuxvhci] read_attr_speed udev_device_get_sysattr_value fail");
        return 0;
    }
    const SpeedString* row = speed_strings;
    while (row->text != nullptr && std::strcmp(row->text, text) != 0)
        ++row;
    return static_cast<std::uint32_t>(row->speed);
}

template <std::size_t Size>
void copy_text(char (&to)[Size], const char* from) {
    std::snprintf(to, Size, "%s", from != nullptr ? from : "");
}

}  // namespace

CLinuxVHCI::~CLinuxVHCI() {
    CLinuxVHCI::Close();
}

bool CLinuxVHCI::Open() {
    Clean();
    read_ = CPortReservations::OfThisProcess().Now();
    XJModLog(8, "[linuxvhci] open start");
    const auto fail = [this](const char* line) {
        XJModLog(4, "%s", line);
        Clean();
        return false;
    };
    udev_ = udev_new();
    if (udev_ == nullptr) return fail("[linuxvhci] open udev_new failed");
    hc_device_ = udev_device_new_from_subsystem_sysname(udev_, "platform", "vhci_hcd.0");
    if (hc_device_ == nullptr) {
        return fail("[linuxvhci] open udev_device_new_from_subsystem_sysname failed");
    }
    nports_ = GetAvailablePorts();
    if (nports_ <= 0 || nports_ > kMaxPorts) return fail("[linuxvhci] open no available port");
    XJModLog(8, "[linuxvhci] available port %d", nports_);
    idev_.assign(static_cast<std::size_t>(nports_), usbip_imported_device{});
    ncontrollers_ = GetNumOfControllers();
    XJModLog(8, "[linuxvhci] ncontrollers_ %d", ncontrollers_);
    if (ncontrollers_ <= 0) return fail("[linuxvhci] open no available port");
    if (!RefreshImportedDeviceList()) return fail("[linuxvhci] open refresh imported list fail");
    XJModLog(8, "[linuxvhci] open success");
    return true;
}

void CLinuxVHCI::Close() {
    XJModLog(8, "[linuxvhci] close");
    Clean();
}

void CLinuxVHCI::Clean() {
    if (hc_device_ != nullptr) udev_device_unref(hc_device_);
    hc_device_ = nullptr;
    if (udev_ != nullptr) udev_unref(udev_);
    udev_ = nullptr;
    ncontrollers_ = 0;
    nports_ = 0;
    idev_.clear();
}

int CLinuxVHCI::GetAvailablePorts() {
    const char* text = udev_device_get_sysattr_value(hc_device_, "nports");
    if (text == nullptr) {
        XJModLog(4, "[linuxvhci] GetAvailablePorts udev_device_get_sysattr_value fail");
        return 0;
    }
    return static_cast<int>(std::strtoul(text, nullptr, 10));
}

// Each controller is one platform device beside the first one.
int CLinuxVHCI::GetNumOfControllers() {
    udev_device* parent = udev_device_get_parent(hc_device_);  // borrowed from hc_device_
    if (parent == nullptr) {
        XJModLog(4, "[linuxvhci] GetNumOfControllers udev_device_get_parent fail");
        return 0;
    }
    dirent** entries = nullptr;
    const int count = scandir(udev_device_get_syspath(parent), &entries, vhci_hcd_filter, nullptr);
    if (count < 0) {
        XJModLog(4, "[linuxvhci] GetNumOfControllers scandir fail");
        return 0;
    }
    for (int i = 0; i < count; ++i)
        std::free(entries[i]);
    std::free(entries);
    return count;
}

bool CLinuxVHCI::RefreshImportedDeviceList() {
    for (int i = 0; i < ncontrollers_; ++i) {
        char name[19] = "status";
        if (i > 0) std::snprintf(name, sizeof name, "status.%d", i);
        const char* text = udev_device_get_sysattr_value(hc_device_, name);
        if (text == nullptr) {
            XJModLog(4, "[linuxvhci] RefreshImportedDeviceList udev_device_get_sysattr_value fail");
            return false;
        }
        XJModLog(8, "[linuxvhci] RefreshImportedDeviceList controller  %d", i);
        if (!ParseStatus(text)) return false;
    }
    return true;
}

// One header line, then one line per port.
bool CLinuxVHCI::ParseStatus(const char* text) {
    const char* newline = std::strchr(text, '\n');
    if (newline == nullptr) return false;
    while (newline != nullptr && newline[1] != '\0') {
        const char* line = newline + 1;
        newline = std::strchr(line, '\n');

        const VhciPortLine port = ParseVhciPortLine(line);
        if (!port.Complete()) {
            XJModLog(4, "[linuxvhci] ParseStatus sscanf fail %d", port.fields);
            return false;
        }
        XJModLog(8,
                 "[linuxvhci] ParseStatus hub %s port %d status %d speed %d devid %x sockfd %u "
                 "lbusid %s",
                 port.hub, port.port, port.status, port.speed, port.devid, port.sockfd,
                 port.lbusid);
        if (port.port < 0 || static_cast<std::size_t>(port.port) >= idev_.size()) {
            XJModLog(4, "[linuxvhci] ParseStatus port %d outside the table of %zu", port.port,
                     idev_.size());
            return false;
        }

        usbip_imported_device& device = idev_[static_cast<std::size_t>(port.port)];
        device = {};
        device.hub = port.SuperSpeed() ? HUB_SPEED_SUPER : HUB_SPEED_HIGH;
        device.port = static_cast<std::uint8_t>(port.port);
        device.status = static_cast<std::uint32_t>(port.status);
        device.devid = port.devid;
        device.busnum = static_cast<std::uint8_t>(port.devid >> 16);
        device.devnum = static_cast<std::uint8_t>(port.devid);
        // Without its local device, as while the kernel enumerates or removes it, the port is in
        // use all the same.
        if (device.status != VDEV_ST_NULL && device.status != VDEV_ST_NOTASSIGNED &&
            !InitImportedDevice(&device, port.lbusid)) {
            XJModLog(4, "[linuxvhci] ParseStatus InitImportedDevice fail busid %s", port.lbusid);
        }
    }
    return true;
}

bool CLinuxVHCI::InitImportedDevice(usbip_imported_device* imported, const char* busid) {
    using Device = std::unique_ptr<udev_device, decltype(&udev_device_unref)>;
    const Device device(udev_device_new_from_subsystem_sysname(udev_, "usb", busid),
                        &udev_device_unref);
    if (!device) {
        XJModLog(4,
                 "[linuxvhci] InitImportedDevice udev_device_new_from_subsystem_sysname fail "
                 "busid %s",
                 busid);
        return false;
    }
    const auto read8 = [&](const char* name, const char* format = "%02x\n") {
        return static_cast<std::uint8_t>(read_attr_value(device.get(), name, format));
    };
    const auto read16 = [&](const char* name) {
        return static_cast<std::uint16_t>(read_attr_value(device.get(), name, "%04x\n"));
    };
    usbip_usb_device& info = imported->udev;
    info.bDeviceClass = read8("bDeviceClass");
    info.bDeviceSubClass = read8("bDeviceSubClass");
    info.bDeviceProtocol = read8("bDeviceProtocol");
    info.idVendor = read16("idVendor");
    info.idProduct = read16("idProduct");
    info.bcdDevice = read16("bcdDevice");
    info.bNumConfigurations = read8("bNumConfigurations");
    info.devnum = read8("devnum", "%d\n");
    info.speed = read_attr_speed(device.get());
    copy_text(info.path, udev_device_get_syspath(device.get()));
    const char* name = udev_device_get_sysname(device.get());
    copy_text(info.busid, name);
    unsigned int busnum = 0;
    unsigned int port = 0;
    info.busnum = std::sscanf(name, "%u-%u", &busnum, &port) == 2 ? busnum : 0;
    return true;
}
