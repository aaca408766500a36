// What a remote USB device is to the session that serves it: commands in, replies out.
#pragma once

#include <cstdint>
#include <string>

#include "remote/Bytes.h"

namespace remote {

// The kernel's enum usb_device_speed, as far as it is used here.
enum class UsbSpeed : std::uint32_t { kHigh = 3, kSuper = 5 };

struct DeviceInfo {
    std::string instance;  // names the device to a person
    UsbSpeed speed;
    std::uint16_t vendor;
    std::uint16_t product;
};

// Takes the device's replies. Never calls the device back from inside Reply.
class ReplySink {
  public:
    virtual ~ReplySink() = default;
    virtual void Reply(Bytes pdu) = 0;  // one whole RET_SUBMIT or RET_UNLINK
};

// All operations are called on the one thread of the server.
class Device {
  public:
    virtual ~Device() = default;

    virtual const DeviceInfo& Info() const = 0;

    // A host has mapped the device: it starts in the state of a device just plugged in and sends
    // its replies to `sink`, during Command or later, until Detach.
    virtual void Attach(ReplySink& sink) = 0;

    // The host is gone: pending URBs are dropped without a reply, what was written is made safe.
    virtual void Detach() = 0;

    // One whole CMD_SUBMIT or CMD_UNLINK whose length was checked; borrowed for the call. Every
    // command is answered in the end: the kernel's controller hangs on an unlink without an answer.
    virtual void Command(ByteView pdu) = 0;
};

}  // namespace remote
