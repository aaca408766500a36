#include "host/DeviceWords.h"

#include <cstdio>

namespace host {
namespace {

using xj_usbip::Arrival;

std::string joined(const std::vector<std::string>& words) {
    std::string all;
    for (const std::string& word : words)
        all += (all.empty() ? "" : ", ") + word;
    return all;
}

}  // namespace

std::string WhatArrived(const Arrival& arrival, std::chrono::milliseconds age) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f", static_cast<double>(age.count()) / 1000);
    const xj_usbip::LocalDevice& found = arrival.Found();
    std::string uses = "no driver wants it";
    if (!found.drivers.empty()) uses = "driver " + joined(found.drivers);
    if (!found.nodes.empty()) uses = joined(found.nodes);
    return "is usb " + arrival.Local() + " on port " + std::to_string(arrival.Port()) +
           ", ready after " + seconds + " s: " + uses;
}

std::string WhatKeeps(const Arrival& arrival) {
    const std::string port = "on port " + std::to_string(arrival.Port());
    const std::string again = "; unplug it at the remote side and plug it in again";
    switch (arrival.Current()) {
        case Arrival::State::Enumerating:
            return "is " + port + ", but does not answer this machine's kernel" + again;
        case Arrival::State::Unauthorized:
            return "is usb " + arrival.Local() + ' ' + port +
                   ", and waits to be authorized: echo 1 >/sys/bus/usb/devices/" + arrival.Local() +
                   "/authorized";
        default:
            return "is usb " + arrival.Local() + ' ' + port +
                   ", but the kernel cannot set it up; only a new connection helps" + again;
    }
}

const char* StateName(Arrival::State state) {
    constexpr const char* kNames[] = {"attaching", "enumerating", "unauthorized", "configuring",
                                      "ready"};
    return kNames[static_cast<std::size_t>(state)];
}

const char* KindName(DeviceEvent::Kind kind) {
    constexpr const char* kNames[] = {"ready", "late", "refused", "failed", "left"};
    return kNames[static_cast<std::size_t>(kind)];
}

}  // namespace host
