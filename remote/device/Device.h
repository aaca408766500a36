// What a remote USB device is to the session that serves it: commands in, replies out.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "remote/device/Command.h"
#include "remote/io/Bytes.h"

namespace remote {

using Clock = std::chrono::steady_clock;

// The kernel's enum usb_device_speed, as far as its virtual host controller takes it.
enum class UsbSpeed : std::uint32_t { kLow = 1, kFull = 2, kHigh = 3, kWireless = 4, kSuper = 5 };

struct DeviceInfo {
    std::string instance;  // names the device to a person
    UsbSpeed speed;
    std::uint16_t vendor;
    std::uint16_t product;
    // The two halves of the device id that the host's kernel puts into commands. A bus of 0: the
    // device does not care, and gets a place of ours.
    std::uint16_t bus = 0;
    std::uint16_t number = 0;
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

    // A host wants the device from now on, or no longer (after Detach, or without an Attach). It
    // counts only for devices that come and go by themselves: may be mapped while Present, and is
    // unmapped soon after it is not.
    virtual void Acquire() {}
    virtual void Release() {}
    virtual bool Present() const { return true; }

    // A host has mapped the device: it starts in the state of a device just plugged in and sends
    // its replies to `sink`, during TakeCommand or later, until Detach.
    virtual void Attach(ReplySink& sink) = 0;

    // The host is gone: pending URBs are dropped without a reply, what was written is made safe.
    virtual void Detach() = 0;

    // False after Detach: some of what was written could not be made safe.
    virtual bool DataSafe() const { return true; }

    // One command of the host, whose bytes are borrowed for the call. Every command is answered in
    // the end: the kernel's controller hangs on an unlink without an answer.
    virtual void TakeCommand(const Command& command) = 0;

    // All commands that there were are taken: those to be passed on can go together.
    virtual void Send() {}

    // For devices with a descriptor to wait for: which events of poll they want at this moment, and
    // when they want to be called without one. None of it is asked of the device while the session
    // has no room for its replies, except that OnEvents may then bring POLLOUT.
    virtual int Fd() const { return -1; }
    virtual short Events() const { return 0; }
    virtual void OnEvents(short /*events*/) {}
    virtual std::optional<Clock::time_point> Deadline() const { return std::nullopt; }
    virtual void OnDeadline() {}
};

}  // namespace remote
