// Devices to offer, from what the user names.
#pragma once

#include <memory>

#include "remote/Options.h"
#include "remote/device/Device.h"

namespace remote {

// `number` becomes part of its name. Null with an `error`.
std::unique_ptr<Device> MakeDisk(const DiskOption& option, std::uint32_t number,
                                 std::string& error);

// Null with an `error` when there is no such device to be had now and nobody wants to wait for it.
// Null soon after `stop` becomes readable.
std::unique_ptr<Device> MakeImport(const UsbipOption& option, bool wait, int stop,
                                   std::string& error);

// Without waiting for anybody: the server has an address for a name, and is asked for the device
// when a host comes. Null with an `error`.
std::unique_ptr<Device> MakeImportNow(const UsbipOption& option, bool wait, std::string& error);

}  // namespace remote
