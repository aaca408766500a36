// One host's connection: the version exchange, the mapping of the plugged devices, and forwards
// both ways. It reads and writes when its owner's poll loop says so, and never blocks.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "posix/UniqueFd.h"
#include "remote/channel/Channel.h"
#include "remote/channel/Counters.h"
#include "remote/device/Device.h"

namespace remote {

// A device with its place at the remote computer.
struct Port {
    std::unique_ptr<Device> device;
    std::uint32_t number;  // from 1
    bool plugged = true;
    Counters counters;
};

// The two ways of a host's stream; a socket serves both and has no `separate_output`. Both must be
// non-blocking.
struct HostLink {
    posix::UniqueFd input;
    posix::UniqueFd separate_output;
};

class Session {
  public:
    using Clock = remote::Clock;

    // While more bytes than this wait to be sent, nothing is read: a host that does not read its
    // replies cannot make us hold more than this and what one command can cause.
    static constexpr std::size_t kMaxPendingOutput = std::size_t{8} << 20;

    // `ports` are borrowed and outlive the session.
    Session(HostLink link, std::vector<Port>& ports, bool compress);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // The descriptors to wait for at this moment; negative: none.
    int ReadableFd() const;
    int WritableFd() const;
    std::optional<Clock::time_point> Deadline() const { return deadline_; }

    void OnReadable();
    void OnWritable();
    void OnDeadline();

    bool Over() const { return over_; }
    bool Failed() const { return failed_; }  // ended by the host's fault or the link's

    // While this holds, replies of devices have to wait where they are.
    bool Congested() const { return output_.Pending() > kMaxPendingOutput; }

    // Follow a change of the port's `plugged`.
    void Map(Port& port);  // as soon as the device is present; nothing before the version exchange
    void Unmap(Port& port);  // does nothing when it is not mapped

    // Maps and unmaps the devices that have come or gone by themselves.
    void FollowDevices();
    bool Mapped(const Port& port) const { return FindMapping(port) != mappings_.end(); }

    // Unmaps everything and is over when the host has taken note, or soon after.
    void Close();

  private:
    class Mapping;
    using Mappings = std::map<std::uint32_t, std::unique_ptr<Mapping>>;

    int OutputFd() const;
    Mappings::const_iterator FindMapping(const Port& port) const;
    void Pump();
    void Handle(ByteView whole);
    void OnVersion(std::uint32_t version);
    void OnDeviceEnd(std::uint32_t devid);
    void OnForward(const Message& message);
    void Follow(Port& port);
    void Announce(Port& port);
    void Withdraw(Port& port);
    void Forget(Port& port);
    void ReleaseAll();
    void Send(Mapping& from, Bytes pdu);
    void EndClosing();
    void End(bool failed, const std::string& reason);

    const HostLink link_;
    std::vector<Port>& ports_;
    const bool compress_;

    MessageReader reader_;
    OutputQueue output_;
    bool version_known_ = false;
    bool closing_ = false;
    bool over_ = false;
    bool failed_ = false;
    std::optional<Clock::time_point> deadline_;

    // By device id. An id is never used twice in a session: what the host still sends for an
    // earlier mapping of the same device cannot reach the new one.
    Mappings mappings_;
    std::set<Port*> wanted_;  // the host is to have these when they are present
    std::uint32_t next_devid_ = 1;
    std::set<std::uint32_t> unmapping_;  // we asked for the unmap, the host has yet to confirm
};

}  // namespace remote
