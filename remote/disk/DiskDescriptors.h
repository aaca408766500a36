// The USB descriptors of the virtual disk (USB 2.0 section 9.6, USB 3.0 section 9.6).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "remote/device/Device.h"
#include "remote/io/Bytes.h"

namespace remote {

// Of the Linux Foundation's gadgets.
inline constexpr std::uint16_t kDiskVendor = 0x1D6B;
inline constexpr std::uint16_t kDiskProduct = 0x0104;

inline constexpr std::uint8_t kDiskConfiguration = 1;
inline constexpr std::uint8_t kBulkIn = 0x81;
inline constexpr std::uint8_t kBulkOut = 0x02;

std::uint16_t BulkPacketSize(UsbSpeed speed);

// The whole descriptor that a GET_DESCRIPTOR request with this type and index asks for; nothing
// when the device has none (the request stalls). `serial` is ASCII.
std::optional<Bytes> DiskDescriptor(UsbSpeed speed, std::uint8_t type, std::uint8_t index,
                                    const std::string& serial);

}  // namespace remote
