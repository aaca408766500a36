#include "host/Doctor.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>

#include "wire/VhciStatus.h"

namespace host {
namespace {

constexpr int kMostControllers = 128;  // the most that CONFIG_USBIP_VHCI_NR_HCS can be set to

struct HubPorts {
    int free = 0;
    int used = 0;
};

struct PortCount {
    HubPorts high_speed;
    HubPorts super_speed;
    int malformed = 0;  // lines that say nothing sensible
};

// As the module judges it: what it refuses is malformed, what it may choose is free.
void count_line(const std::string& line, PortCount& count) {
    const VhciPortLine port = ParseVhciPortLine(line);
    if (!port.Complete() || port.port < 0) {
        ++count.malformed;
        return;
    }
    HubPorts& ports = port.SuperSpeed() ? count.super_speed : count.high_speed;
    ++(port.Free() ? ports.free : ports.used);
}

// Empty when not even the first status file can be read.
std::optional<PortCount> count_ports(const std::string& driver) {
    PortCount count;
    for (int controller = 0; controller < kMostControllers; ++controller) {
        const std::string suffix = controller == 0 ? "" : "." + std::to_string(controller);
        std::ifstream status(driver + "/status" + suffix);
        std::string line;
        if (!std::getline(status, line)) {  // the header
            if (controller == 0) return std::nullopt;
            break;
        }
        while (std::getline(status, line))
            count_line(line, count);
    }
    return count;
}

std::string user_name() {
    const passwd* entry = ::getpwuid(::geteuid());
    return entry != nullptr ? entry->pw_name : "user " + std::to_string(::geteuid());
}

bool report_permission(std::ostream& out, const std::string& attach) {
    out << "Permission  ";
    if (::faccessat(AT_FDCWD, attach.c_str(), W_OK, AT_EACCESS) == 0) {
        out << user_name() << " may write " << attach << '\n';
        return true;
    }
    const int failure = errno;
    out << user_name() << " may not write " << attach << ": " << std::strerror(failure) << '\n';
    if (failure == EACCES) out << "            Run the host as root, for example with sudo.\n";
    return false;
}

bool report_ports(std::ostream& out, const std::string& driver) {
    const auto count = count_ports(driver);
    if (!count) {
        out << "Ports       " << driver << "/status cannot be read\n";
        return false;
    }
    const auto show = [&out](const char* label, const HubPorts& ports) {
        out << label << ports.free << " free, " << ports.used << " in use\n";
    };
    show("Ports       high speed and slower (hs): ", count->high_speed);
    show("            super speed (ss): ", count->super_speed);
    if (count->malformed != 0) {
        out << "            " << count->malformed
            << " status line(s) not understood: this kernel's "
            << "driver speaks another format\n";
        return false;
    }
    if (count->high_speed.free + count->super_speed.free == 0) {
        out << "            No port is free: detach something first.\n";
        return false;
    }
    return true;
}

void report_records(std::ostream& out, const std::string& directory) {
    const bool exists = std::filesystem::is_directory(directory);
    const std::string place =
        exists ? directory : std::filesystem::path(directory).parent_path().string();
    const bool writable = ::faccessat(AT_FDCWD, place.c_str(), W_OK, AT_EACCESS) == 0;
    out << "Records     " << directory << (exists ? " is" : " is not there and can")
        << (writable ? (exists ? " writable" : " be created")
                     : (exists ? " not writable" : "not be created"));
    if (!writable) out << "; devices attach all the same, only `usbip port` will not name them";
    out << '\n';
}

}  // namespace

bool Doctor(std::ostream& out, const std::string& sysfs, const std::string& record_directory) {
    const std::string driver = sysfs + "/devices/platform/vhci_hcd.0";
    bool able = std::filesystem::is_directory(driver);
    if (able) {
        out << "Driver      vhci_hcd is loaded: " << driver << '\n';
        able = report_permission(out, driver + "/attach");
        able = report_ports(out, driver) && able;
        report_records(out, record_directory);
    } else {
        out << "Driver      vhci_hcd is not loaded: there is no " << driver << '\n'
            << "            Load it with: sudo modprobe vhci-hcd\n"
            << "            If there is no such module, this kernel was built without\n"
            << "            CONFIG_USBIP_VHCI_HCD; install one that has it.\n";
    }
    out << (able ? "This machine can attach remote USB devices.\n"
                 : "This machine cannot attach remote USB devices.\n");
    return able;
}

}  // namespace host
