// Whether this machine can attach remote USB devices.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>

namespace host {

// Ports of all controllers, of one kind of hub.
struct HubPorts {
    int free = 0;
    int used = 0;
};

struct PortCount {
    HubPorts high_speed;  // for devices of high speed and slower
    HubPorts super_speed;
    int malformed = 0;  // status lines that say nothing sensible
};

// What was found, for the user whom this process runs as.
struct Examination {
    std::string driver;  // its folder in sysfs
    bool loaded = false;
    // The rest is looked for only if the driver is there.
    std::string user;
    int attach_error = 0;            // errno of asking for the right to write the attach file
    std::optional<PortCount> ports;  // empty when they cannot be read
    std::string records;             // the folder in which the kernel's tools look for names
    bool records_exist = false;
    bool records_writable = false;

    // A device that wants one of these ports could be attached now.
    bool CanAttach(HubPorts PortCount::*hub) const;
    bool CanAttach() const {
        return CanAttach(&PortCount::high_speed) || CanAttach(&PortCount::super_speed);
    }
};

// Only looks, changes nothing. The parameters are for machines made up by tests.
Examination Examine(const std::string& sysfs = "/sys",
                    const std::string& record_directory = "/var/run/vhci_hcd");

// In plain words, with what to do about it.
void Report(const Examination& found, std::ostream& out);

// As one line of JSON; docs/json.md says what it holds.
std::string ToJson(const Examination& found);

}  // namespace host
