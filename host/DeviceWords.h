// What the host says of devices.
#pragma once

#include <chrono>
#include <string>

#include "host/Devices.h"

namespace host {

// "is usb 1-1 on port 0, ready after 0.4 s: /dev/sda"
std::string WhatArrived(const xj_usbip::Arrival& arrival, std::chrono::milliseconds age);

// Of one that is on its way, but late.
std::string WhatKeeps(const xj_usbip::Arrival& arrival);

const char* StateName(xj_usbip::Arrival::State state);

}  // namespace host
