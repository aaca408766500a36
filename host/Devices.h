// The devices of the stream that is served: what the host decides about them, knows of them, and
// says.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/Capturing.h"
#include "xj-client-usbip/kit/Arrival.h"
#include "xj-client-usbip/kit/Rules.h"
#include "xj-client-usbip/kit/Tap.h"

namespace host {

struct Policy {
    xj_usbip::Rules rules;
    bool deny_all = false;  // what no rule matches
    std::size_t most = xj_usbip::Tap::kMostDevices;
};

struct DeviceEvent {
    enum class Kind { Ready, Late, Refused, Failed, Left };
    Kind kind;
    std::uint32_t device;
    std::string text;  // one line
};
const char* KindName(DeviceEvent::Kind kind);

// How a device stands.
struct DeviceStatus {
    xj_usbip::RemoteDevice device;
    std::string state;
    int port = -1;  // -1: none yet
    std::string local;
    xj_usbip::LocalDevice found;
    std::chrono::milliseconds age{0};
    xj_usbip::DeviceCounts counts;
};

// What became of all devices that were offered.
struct Tally {
    int ready = 0;
    int refused = 0;
    int failed = 0;
};

class Devices : public xj_usbip::ITapEvents {
  public:
    // Told of every event in its order, one at a time. Any thread; must not call back.
    using Sink = std::function<void(const DeviceEvent&)>;

    Devices(Policy policy, std::string sysfs, Sink sink);
    ~Devices() override;
    Devices(const Devices&) = delete;
    Devices& operator=(const Devices&) = delete;

    // Before anything else. False with an `error`: rules that go by class cannot be kept.
    bool Open(std::string& error);

    // The stream's; null behind its end, when all devices that are left have left because of `why`.
    void Serve(const CRefObj<xj_usbip::Tap>& tap);
    void Leave(const std::string& why);
    // Devices whose end is reported from now on have it because of `why`, too.
    void Leaving(const std::string& why);

    // Of ITapEvents.
    bool OnMap(const xj_usbip::RemoteDevice& device) override;
    void OnUnmap(std::uint32_t id) override;
    void OnEnd(std::uint32_t id) override;
    void OnPdu(const xj_usbip::TappedPdu& pdu) override { capturing_.Add(pdu); }

    std::vector<DeviceStatus> List() const;
    bool Detach(std::uint32_t id, std::string& error);
    bool StartCapture(const CaptureOrder& order, std::string& error);
    std::string StopCapture();  // see Capturing::Stop
    std::string DescribeCapture() const { return capturing_.Describe(); }
    Tally Count() const;

  private:
    using State = xj_usbip::Arrival::State;
    using Clock = xj_usbip::Arrival::Clock;
    using Kind = DeviceEvent::Kind;

    struct Entry {
        xj_usbip::RemoteDevice device;
        std::shared_ptr<xj_usbip::Arrival> arrival;  // what is in it is the watching thread's
        Clock::time_point since;
        // What it has found.
        State state = State::Attaching;
        int port = -1;
        std::string local;
        xj_usbip::LocalDevice found;
        bool late = false;      // and it was said
        bool refused = false;   // it was said, and the device is to end
        std::string why_ended;  // once this host has ended it
    };

    void Watch();
    // Looks what has become of a device since this was known; without the lock.
    void Look(const Entry& known);
    // Lets drivers have a device that waits for it, or not.
    void Admit(const xj_usbip::RemoteDevice& device, const xj_usbip::Arrival& arrival);

    std::string WhyRefused(const xj_usbip::Rules::Decision& decision) const;
    std::string WhyNotAttached(const xj_usbip::RemoteDevice& device) const;
    // With the lock held.
    void Tell(DeviceEvent::Kind kind, const xj_usbip::RemoteDevice& device,
              const std::string& what);
    Entry* Find(std::uint32_t id, const xj_usbip::Arrival* arrival = nullptr);

    const Policy policy_;
    const std::string sysfs_;
    const Sink sink_;
    xj_usbip::Gate gate_;  // opened before there are threads
    Capturing capturing_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::uint32_t, Entry> entries_;  // guarded by mutex_
    CRefObj<xj_usbip::Tap> tap_;              // guarded by mutex_
    std::string leaving_;                     // guarded by mutex_: see Leaving
    Tally tally_;                             // guarded by mutex_
    bool closing_ = false;                    // guarded by mutex_

    std::thread watcher_;  // last: it uses all the others
};

}  // namespace host
