// A place for a device at the remote computer.
#pragma once

#include <cstdint>
#include <memory>

#include "remote/channel/Counters.h"
#include "remote/device/Device.h"

namespace remote {

struct Slot {
    std::unique_ptr<Device> device;
    std::uint32_t number;  // from 1
    bool plugged = true;   // hosts are to have the device
    Counters counters = {};
};

}  // namespace remote
