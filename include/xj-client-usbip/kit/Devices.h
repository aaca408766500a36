// What the kit says about devices. Everything in host byte order.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace xj_usbip {

// A device as the remote side describes it when it maps it. All of it is the remote side's word.
struct RemoteDevice {
    std::uint32_t id = 0;         // names it on the stream until its end, when it may come again
    std::uint32_t kernel_id = 0;  // what the kernel's port table shows: bus number << 16 | port
    std::uint32_t speed = 0;      // the kernel's enum usb_device_speed
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::string instance;  // its name there; any bytes but NUL
};

// "high speed" for 3, and so on.
std::string_view SpeedName(std::uint32_t speed);

// "NAME (1d6b:0104, high speed)", for the user. Ids at the end of the instance text are not
// repeated.
std::string Describe(const RemoteDevice& device);

// What has passed one way.
struct Passed {
    std::uint64_t pdus = 0;
    std::uint64_t bytes = 0;       // of whole PDUs, inflated
    std::uint64_t on_stream = 0;   // of the messages that carried them
    std::uint64_t compressed = 0;  // PDUs
};

// Counted since the device was mapped.
struct DeviceCounts {
    Passed to_remote;    // commands
    Passed from_remote;  // replies
    std::size_t outstanding = 0;
    std::chrono::nanoseconds oldest{0};      // age of the oldest outstanding command, to 10 ms
    std::chrono::nanoseconds round_trip{0};  // of the last one that was timed; 0: none yet
};

}  // namespace xj_usbip
