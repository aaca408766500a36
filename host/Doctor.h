// Says in plain words whether this machine can attach remote USB devices.
#pragma once

#include <iosfwd>
#include <string>

namespace host {

// Writes its findings to `out`; true when a device could be attached now. Only looks, changes
// nothing. The parameters are for machines made up by tests.
bool Doctor(std::ostream& out, const std::string& sysfs = "/sys",
            const std::string& record_directory = "/var/run/vhci_hcd");

}  // namespace host
