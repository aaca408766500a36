// What a server offers, as a person reads it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "remote/bridge/UsbipHandshake.h"

namespace remote {

std::string UsbIdText(std::uint16_t vendor, std::uint16_t product);  // "1d6b:0104"

// A table with a line for each device.
std::string DeviceTable(const std::vector<ServedDevice>& devices);

}  // namespace remote
