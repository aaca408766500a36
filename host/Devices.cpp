#include "host/Devices.h"

#include <algorithm>
#include <utility>

#include "host/DeviceWords.h"
#include "host/Doctor.h"

namespace host {
namespace {

using xj_usbip::Arrival;
using xj_usbip::RemoteDevice;
using xj_usbip::Rules;

constexpr std::chrono::milliseconds kNextLook{50};
constexpr std::chrono::seconds kLookAtLateOnes{1};

}  // namespace

Devices::Devices(Policy policy, std::string sysfs, Sink sink)
    : policy_(std::move(policy)),
      sysfs_(std::move(sysfs)),
      sink_(std::move(sink)),
      watcher_([this] { Watch(); }) {}

Devices::~Devices() {
    {
        const std::lock_guard lock(mutex_);
        closing_ = true;
    }
    changed_.notify_one();
    watcher_.join();
}

bool Devices::Open(std::string& error) {
    return !policy_.rules.ByClass() || gate_.Close(sysfs_, error);
}

void Devices::Serve(const CRefObj<xj_usbip::Tap>& tap) {
    const std::lock_guard lock(mutex_);
    leaving_.clear();
    tap_ = tap;
    if (tap_) tap_->ShowPdus(capturing_.MostData());
}

void Devices::Leaving(const std::string& why) {
    const std::lock_guard lock(mutex_);
    leaving_ = why;
}

void Devices::Leave(const std::string& why) {
    const std::lock_guard lock(mutex_);
    for (const auto& [id, entry] : entries_)
        if (!entry.refused) Tell(Kind::Left, entry.device, "left: " + why);
    entries_.clear();
    tap_ = nullptr;
}

void Devices::Tell(Kind kind, const RemoteDevice& device, const std::string& what) {
    if (kind == Kind::Ready) ++tally_.ready;
    if (kind == Kind::Refused) ++tally_.refused;
    if (kind == Kind::Failed) ++tally_.failed;
    sink_({kind, device.id, Describe(device) + ' ' + what});
}

// Empty: it is not.
std::string Devices::WhyRefused(const Rules::Decision& decision) const {
    if (decision.verdict == Rules::Verdict::Deny) return "by the rule \"" + decision.rule + '"';
    return policy_.deny_all && decision.rule.empty() ? "no rule allows it" : "";
}

bool Devices::OnMap(const RemoteDevice& device) {
    const Rules::Decision decision = policy_.rules.Decide(device);
    std::string why = WhyRefused(decision);
    auto arrival = std::make_shared<Arrival>(sysfs_, device, Clock::now());
    const std::lock_guard lock(mutex_);
    if (why.empty() && entries_.size() >= policy_.most) {
        why = std::to_string(policy_.most) + " are attached, and no more may be";
    }
    if (!why.empty()) {
        Tell(Kind::Refused, device, "refused: " + why);
        return false;
    }
    Entry& entry = entries_[device.id];
    entry.device = device;
    entry.arrival = std::move(arrival);
    entry.since = Clock::now();
    changed_.notify_one();
    return true;
}

Devices::Entry* Devices::Find(std::uint32_t id, const Arrival* arrival) {
    const auto found = entries_.find(id);
    if (found == entries_.end()) return nullptr;
    const bool same = arrival == nullptr || found->second.arrival.get() == arrival;
    return same ? &found->second : nullptr;
}

void Devices::OnUnmap(std::uint32_t id) {
    const std::lock_guard lock(mutex_);
    const Entry* const entry = Find(id);
    if (entry == nullptr) return;
    if (!entry->refused) Tell(Kind::Left, entry->device, "left: the remote side unplugged it");
    entries_.erase(id);
}

void Devices::OnEnd(std::uint32_t id) {
    std::unique_lock lock(mutex_);
    const auto node = entries_.extract(id);
    if (!node || node.mapped().refused) return;
    const Entry& entry = node.mapped();
    std::string why = entry.why_ended.empty() ? leaving_ : entry.why_ended;
    if (why.empty() && entry.state == State::Attaching && !entry.late) {
        lock.unlock();
        why = WhyNotAttached(entry.device);
        lock.lock();
        Tell(Kind::Failed, entry.device, "cannot be attached: " + why);
    } else {
        if (why.empty()) why = "this machine's kernel let it go";
        Tell(Kind::Left, entry.device, "left: " + why);
    }
}

std::string Devices::WhyNotAttached(const RemoteDevice& device) const {
    constexpr std::uint32_t kSuperSpeed = 5;
    const Examination found = Examine(sysfs_);
    const auto hub = device.speed >= kSuperSpeed ? &PortCount::super_speed : &PortCount::high_speed;
    if (!found.loaded) return "vhci_hcd is not loaded; load it with: sudo modprobe vhci-hcd";
    if (found.attach_error != 0) return found.user + " may not; run the host as root";
    if (found.ports && ((*found.ports).*hub).free == 0) {
        return "all " + std::to_string(((*found.ports).*hub).used) + " ports for " +
               (device.speed >= kSuperSpeed ? "super speed" : "high speed and slower") +
               " are used; detach something, `usbip port` shows what";
    }
    return "--verbose shows what the module met";
}

void Devices::Watch() {
    std::unique_lock lock(mutex_);
    while (!closing_) {
        std::vector<Entry> coming;
        bool late = true;
        for (const auto& [id, entry] : entries_) {
            if (entry.state == State::Ready) continue;
            coming.push_back(entry);
            late = late && entry.late;
        }
        if (coming.empty()) {
            changed_.wait(lock);
            continue;
        }
        // Reading what is in sysfs waits for the kernel, which waits for the device, whose replies
        // wait for us if we hold the lock.
        lock.unlock();
        for (const Entry& entry : coming)
            Look(entry);
        lock.lock();
        if (late) {
            changed_.wait_for(lock, kLookAtLateOnes);
        } else {
            changed_.wait_for(lock, kNextLook);
        }
    }
}

void Devices::Look(const Entry& known) {
    const auto now = Clock::now();
    Arrival& arrival = *known.arrival;
    const State state = arrival.Look(now);
    const bool late = arrival.Late(now) && !known.late;
    // The module tells nobody that it could not attach a device, but in its log.
    const bool failed = late && state == State::Attaching;
    const std::string why = failed ? WhyNotAttached(known.device) : "";
    {
        const std::lock_guard lock(mutex_);
        Entry* const entry = Find(known.device.id, &arrival);
        if (entry == nullptr) return;
        entry->state = state;
        entry->port = arrival.Port();
        entry->local = arrival.Local();
        entry->found = arrival.Found();
        entry->late = entry->late || late;
        if (state == State::Ready) {
            Tell(Kind::Ready, entry->device, WhatArrived(arrival, arrival.Age(now)));
        } else if (failed) {
            Tell(Kind::Failed, entry->device, "cannot be attached: " + why);
        } else if (late) {
            Tell(Kind::Late, entry->device, WhatKeeps(arrival));
        }
    }
    if (state == State::Unauthorized && policy_.rules.ByClass()) Admit(known.device, arrival);
}

void Devices::Admit(const RemoteDevice& device, const Arrival& arrival) {
    const auto classes = xj_usbip::InterfaceClasses(sysfs_, arrival.Local());
    std::string why = classes.empty() ? "what it is cannot be read"
                                      : WhyRefused(policy_.rules.Decide(device, classes));
    std::string error;
    if (why.empty()) {
        if (xj_usbip::Authorize(sysfs_, arrival.Local(), error)) return;
        why = "it cannot be authorized: " + error;
    }
    {
        const std::lock_guard lock(mutex_);
        Entry* const entry = Find(device.id, &arrival);
        if (entry == nullptr || entry->refused) return;
        entry->refused = true;
        Tell(Kind::Refused, device, "refused: " + why);
    }
    xj_usbip::DetachPort(sysfs_, arrival.Port(), error);  // drivers never get it in any case
}

std::vector<DeviceStatus> Devices::List() const {
    std::vector<DeviceStatus> list;
    const auto now = Clock::now();
    const std::lock_guard lock(mutex_);
    for (const auto& [id, entry] : entries_) {
        DeviceStatus status{
            entry.device, StateName(entry.state), entry.port, entry.local, entry.found, {}, {}};
        status.age = std::chrono::duration_cast<std::chrono::milliseconds>(now - entry.since);
        if (const auto counts = tap_ ? tap_->Counts(id) : std::nullopt) status.counts = *counts;
        list.push_back(std::move(status));
    }
    return list;
}

bool Devices::Detach(std::uint32_t id, std::string& error) {
    int port = -1;
    {
        const std::lock_guard lock(mutex_);
        Entry* const entry = Find(id);
        if (entry == nullptr || entry->port < 0) {
            error = "there is no device " + std::to_string(id) + " on a port";
            return false;
        }
        entry->why_ended = "detached as asked";
        port = entry->port;
    }
    return xj_usbip::DetachPort(sysfs_, port, error);
}

bool Devices::StartCapture(const CaptureOrder& order, std::string& error) {
    if (!capturing_.Start(order, error)) return false;
    const std::lock_guard lock(mutex_);
    if (tap_) tap_->ShowPdus(order.file.most_data);
    return true;
}

std::string Devices::StopCapture() {
    {
        const std::lock_guard lock(mutex_);
        if (tap_) tap_->ShowPdus(std::nullopt);
    }
    return capturing_.Stop();
}

Tally Devices::Count() const {
    const std::lock_guard lock(mutex_);
    return tally_;
}

}  // namespace host
