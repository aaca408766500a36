// Handing a socket to the kernel, and the record that the kernel's own tools look for.

#include <fcntl.h>
#include <libudev.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "module/runtime/XJModLog.h"
#include "vhci/PortReservations.h"
#include "vhci/USBVHCI_linux.h"

namespace {

// The kernel's enum usb_device_speed. Drivers up to Linux 6.1 refuse what is beyond super speed,
// later ones give it a port of their own choice.
constexpr unsigned int kSpeedSuper = 5;
constexpr unsigned int kSpeedSuperPlus = 6;

constexpr char kStateDirectory[] = "/var/run/vhci_hcd";
constexpr mode_t kStateMode = 0700;
constexpr char kHostLabel[] = "xj-remote";

bool state_directory_ready() {
    if (mkdir(kStateDirectory, kStateMode) == 0) return true;
    if (errno != EEXIST) return false;
    struct stat info {};
    return stat(kStateDirectory, &info) == 0 && S_ISDIR(info.st_mode);
}

// Best effort: the device works without its record.
void write_port_record(unsigned int port, unsigned int busnum, unsigned int devnum) {
    if (!state_directory_ready()) return;
    char path[64];
    std::snprintf(path, sizeof path, "%s/port%d", kStateDirectory, static_cast<int>(port));
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kStateMode);
    if (fd < 0) return;
    char line[101];
    std::snprintf(line, sizeof line, "%s %s %d-%d\n", kHostLabel, "0", static_cast<int>(busnum),
                  static_cast<int>(devnum));
    [[maybe_unused]] const ssize_t written = write(fd, line, std::strlen(line));
    close(fd);
}

bool write_sysfs_attribute(const char* path, const char* text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        XJModLog(4, "[linuxvhci] write_sysfs_attribute open attribute fail, %s", path);
        return false;
    }
    const ssize_t written = write(fd, text, std::strlen(text));
    close(fd);
    if (written < 0) {
        XJModLog(4, "[linuxvhci] write_sysfs_attribute write attribute fail, %s", path);
        return false;
    }
    return true;
}

}  // namespace

bool CLinuxVHCI::Attach(int sockfd, unsigned short busnum, unsigned short devnum,
                        unsigned int speed, unsigned char* outPort) {
    XJModLog(1, "[linuxvhci] Attach start sockfd %d busnum %u devnum %u speed %u", sockfd, busnum,
             devnum, speed);
    if (speed == kSpeedSuperPlus) speed = kSpeedSuper;
    const usbip_imported_device* port = ReserveFreePort(speed);
    if (port == nullptr) {
        XJModLog(4, "[linuxvhci] Attach get free port fail");
        return false;
    }
    const auto release = [](const usbip_imported_device* taken) {
        CPortReservations::OfThisProcess().Release(taken->port);
    };
    const std::unique_ptr<const usbip_imported_device, decltype(release)> reserved(port, release);
    XJModLog(1, "[linuxvhci] Attach get free port %d", port->port);
    const unsigned int devid = static_cast<unsigned int>(busnum) << 16 | devnum;
    if (!WriteAttachRequest(*port, sockfd, devid, speed)) {
        XJModLog(4, "[linuxvhci] Attach write_sysfs_attribute fail");
        return false;
    }
    XJModLog(1, "[linuxvhci] Attach success, port %u", port->port);
    if (outPort != nullptr) *outPort = port->port;
    close(sockfd);
    write_port_record(port->port, busnum, devnum);
    return true;
}

const usbip_imported_device* CLinuxVHCI::ReserveFreePort(unsigned int speed) const {
    const usbip_hub_speed hub = speed == kSpeedSuper ? HUB_SPEED_SUPER : HUB_SPEED_HIGH;
    for (std::size_t i = 0; i < idev_.size(); ++i) {
        // A record holds eight bits of its number; a port beyond that cannot be named.
        if (idev_[i].port == i && idev_[i].hub == hub && idev_[i].status == VDEV_ST_NULL &&
            CPortReservations::OfThisProcess().Reserve(idev_[i].port, read_)) {
            return &idev_[i];
        }
    }
    return nullptr;
}

bool CLinuxVHCI::WriteAttachRequest(const usbip_imported_device& port, int sockfd,
                                    unsigned int devid, unsigned int speed) {
    char request[200];
    std::snprintf(request, sizeof request, "%u %d %u %u", port.port, sockfd, devid, speed);
    char path[256];
    std::snprintf(path, sizeof path, "%s/attach", udev_device_get_syspath(hc_device_));
    XJModLog(1, "[linuxvhci] Attach attribute path %s, buff:%s", path, request);
    return write_sysfs_attribute(path, request);
}
