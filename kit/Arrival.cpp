#include "xj-client-usbip/kit/Arrival.h"

#include <algorithm>

#include "kit/Sysfs.h"

namespace xj_usbip {
namespace {

using std::chrono::milliseconds;

// A disk has its node a second after its driver; many devices never get one.
constexpr milliseconds kNodePatience{1'500};

// A port is found and taken in no time. Then the kernel tries three times, and gives a request five
// seconds.
constexpr milliseconds kLateForPort{10'000};
constexpr milliseconds kLate{20'000};

}  // namespace

Arrival::Arrival(std::string sysfs, const RemoteDevice& device, Clock::time_point now)
    : sysfs_(std::move(sysfs)), kernel_id_(device.kernel_id), begun_(now) {
    for (const UsedPort& port : UsedPorts(sysfs_))
        if (port.kernel_id == kernel_id_) others_.push_back({port.number, Address(port)});
}

// The kernel gives every device on a bus another one.
std::string Arrival::Address(const UsedPort& port) const {
    return port.local.empty()
               ? ""
               : ReadAttribute(sysfs_ + "/bus/usb/devices/" + port.local + "/devnum");
}

bool Arrival::OnPort() {
    const std::vector<UsedPort> ports = UsedPorts(sysfs_);
    const auto ours = std::ranges::find_if(ports, [&](const UsedPort& port) {
        return port.kernel_id == kernel_id_ &&
               std::ranges::count(others_, std::pair(port.number, Address(port))) == 0;
    });
    port_ = ours == ports.end() ? -1 : ours->number;
    local_ = ours == ports.end() ? "" : ours->local;
    return port_ >= 0;
}

Arrival::State Arrival::Judge(Clock::time_point now) {
    if (!OnPort()) return State::Attaching;
    const auto found = local_.empty() ? std::nullopt : FindLocalDevice(sysfs_, local_);
    if (!found) return State::Enumerating;
    found_ = *found;
    if (!found_.authorized) return State::Unauthorized;
    if (!found_.configured) return State::Configuring;
    if (!configured_) configured_ = now;
    const bool complete = !found_.nodes.empty() || now - *configured_ >= kNodePatience;
    return complete ? State::Ready : State::Configuring;
}

Arrival::State Arrival::Look(Clock::time_point now) {
    state_ = Judge(now);
    return state_;
}

bool Arrival::Late(Clock::time_point now) const {
    if (state_ == State::Ready) return false;
    return Age(now) >= (state_ == State::Attaching ? kLateForPort : kLate);
}

}  // namespace xj_usbip
