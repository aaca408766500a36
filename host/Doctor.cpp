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

void report_permission(const Examination& found, std::ostream& out) {
    const std::string attach = found.driver + "/attach";
    out << "Permission  " << found.user;
    if (found.attach_error == 0) {
        out << " may write " << attach << '\n';
        return;
    }
    out << " may not write " << attach << ": " << std::strerror(found.attach_error) << '\n';
    if (found.attach_error == EACCES) {
        out << "            Run the host as root, for example with sudo.\n";
    }
}

void report_ports(const Examination& found, std::ostream& out) {
    if (!found.ports) {
        out << "Ports       " << found.driver << "/status cannot be read\n";
        return;
    }
    const auto show = [&out](const char* label, const HubPorts& ports) {
        out << label << ports.free << " free, " << ports.used << " in use\n";
        return ports.free == 0;
    };
    const bool full = show("Ports       high speed and slower (hs): ", found.ports->high_speed) &
                      show("            super speed (ss): ", found.ports->super_speed);
    if (found.ports->malformed != 0) {
        out << "            " << found.ports->malformed
            << " status line(s) not understood: this kernel's "
            << "driver speaks another format\n";
    } else if (full) {
        out << "            No port is free: detach something first.\n";
    }
}

void report_records(const Examination& found, std::ostream& out) {
    const bool exists = found.records_exist;
    out << "Records     " << found.records << (exists ? " is" : " is not there and can")
        << (found.records_writable ? (exists ? " writable" : " be created")
                                   : (exists ? " not writable" : "not be created"));
    if (!found.records_writable) {
        out << "; devices attach all the same, only `usbip port` will not name them";
    }
    out << '\n';
}

bool may_write(const std::string& path) {
    return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

}  // namespace

bool Examination::CanAttach(HubPorts PortCount::*hub) const {
    return loaded && attach_error == 0 && ports && ports->malformed == 0 &&
           ((*ports).*hub).free > 0;
}

Examination Examine(const std::string& sysfs, const std::string& record_directory) {
    Examination found;
    found.driver = sysfs + "/devices/platform/vhci_hcd.0";
    found.user = user_name();
    found.records = record_directory;
    std::error_code none;
    found.loaded = std::filesystem::is_directory(found.driver, none);
    if (!found.loaded) return found;
    if (!may_write(found.driver + "/attach")) found.attach_error = errno;
    found.ports = count_ports(found.driver);
    found.records_exist = std::filesystem::is_directory(record_directory, none);
    found.records_writable = may_write(
        found.records_exist ? record_directory
                            : std::filesystem::path(record_directory).parent_path().string());
    return found;
}

void Report(const Examination& found, std::ostream& out) {
    if (found.loaded) {
        out << "Driver      vhci_hcd is loaded: " << found.driver << '\n';
        report_permission(found, out);
        report_ports(found, out);
        report_records(found, out);
    } else {
        out << "Driver      vhci_hcd is not loaded: there is no " << found.driver << '\n'
            << "            Load it with: sudo modprobe vhci-hcd\n"
            << "            If there is no such module, this kernel was built without\n"
            << "            CONFIG_USBIP_VHCI_HCD; install one that has it.\n";
    }
    const char* verdict = "cannot attach remote USB devices.";
    if (found.CanAttach()) {
        verdict = "can attach remote USB devices.";
        if (!found.CanAttach(&PortCount::high_speed)) {
            verdict = "can attach remote USB devices of super speed, but no slower ones.";
        } else if (!found.CanAttach(&PortCount::super_speed)) {
            verdict = "can attach remote USB devices of high speed and slower, but no faster ones.";
        }
    }
    out << "This machine " << verdict << '\n';
}

}  // namespace host
