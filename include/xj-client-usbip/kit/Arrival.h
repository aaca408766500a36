// A mapped device on its way from the remote side to the programs of this machine.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "xj-client-usbip/kit/Devices.h"
#include "xj-client-usbip/kit/Ports.h"

namespace xj_usbip {

// One thread at a time.
class Arrival {
  public:
    using Clock = std::chrono::steady_clock;

    enum class State {
        Attaching,     // on no port yet
        Enumerating,   // on a port; the kernel asks the device who it is
        Unauthorized,  // it waits for Authorize: InterfaceClasses says what it is
        Configuring,   // its interfaces, drivers and nodes are not all there yet
        Ready,
    };

    // To be made before the module gets the map: it notes which ports show such a device already.
    Arrival(std::string sysfs, const RemoteDevice& device, Clock::time_point now);

    // Looks what has become of it. Nodes may still come to a device that is Ready.
    State Look(Clock::time_point now);

    // It has been on its way for longer than devices are: programs will hardly get it any more.
    bool Late(Clock::time_point now) const;

    State Current() const { return state_; }
    std::chrono::milliseconds Age(Clock::time_point now) const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(now - begun_);
    }
    int Port() const { return port_; }                   // -1 while Attaching
    const std::string& Local() const { return local_; }  // as "1-1"; empty until Unauthorized
    const LocalDevice& Found() const { return found_; }

  private:
    bool OnPort();  // finds the port, or sees whether it is still there
    std::string Address(const UsedPort& port) const;
    State Judge(Clock::time_point now);

    const std::string sysfs_;
    const std::uint32_t kernel_id_;
    const Clock::time_point begun_;
    // Ports that had a device of this id before, another remote computer's or one that is leaving,
    // with its address.
    std::vector<std::pair<int, std::string>> others_;
    std::optional<Clock::time_point> configured_;
    State state_ = State::Attaching;
    int port_ = -1;
    std::string local_;
    LocalDevice found_;
};

}  // namespace xj_usbip
