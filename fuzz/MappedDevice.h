// Device 5 of a plug-in, mapped and attached to the fake controller for one input.
#pragma once

#include "fakes/Rig.h"
#include "fakes/Traffic.h"
#include "fuzz/Target.h"

// One plug-in for all inputs, since starting and ending one takes its time.
inline Rig& ThePlugin() {
    static Rig rig{2};
    static const bool started = [] {
        rig.controller.status_pause = {};
        rig.host.Start();
        rig.Handle("");
        return true;
    }();
    Require(started, "the plug-in runs");
    return rig;
}

struct MappedDevice {
    static constexpr std::uint32_t kDevId = 5;

    MappedDevice() : rig(ThePlugin()) {
        rig.host.runtime.Forget();
        kernel = rig.Map(kDevId);
    }
    MappedDevice(const MappedDevice&) = delete;
    MappedDevice& operator=(const MappedDevice&) = delete;

    // Of all PDUs up to the device's end, one after the other.
    std::string SentUntilTheEnd() {
        std::string bytes, message;
        while ((message = rig.NextMessage()) != UnmapMessage(kDevId)) {
            Require(!message.empty(), "the device's end is reported");
            bytes += CarriedPdu(message);
        }
        return bytes;
    }

    Rig& rig;
    std::unique_ptr<KernelEnd> kernel;
};
