// Serial numbers of virtual disks.
#pragma once

#include <string>

namespace remote {

// 16 digits 0-9 and A-F: the same whenever this machine offers this image, so that hosts recognise
// the disk; others for another image, and for an image at the same path of another machine.
std::string DiskSerial(const std::string& path, const std::string& machine);

// What tells this machine from others.
std::string MachineName();

}  // namespace remote
