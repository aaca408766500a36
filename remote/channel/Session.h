// One host's connection: the version exchange, then messages both ways until one side ends it. It
// reads and writes when its owner's poll loop says so, and never blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>

#include "posix/UniqueFd.h"
#include "remote/channel/Mappings.h"
#include "remote/channel/MessageReader.h"
#include "remote/channel/Slot.h"
#include "remote/device/Device.h"
#include "remote/io/OutputQueue.h"

namespace remote {

// The two ways of a host's stream; a socket serves both and has no `separate_output`. Both must be
// non-blocking.
struct HostLink {
    posix::UniqueFd input;
    posix::UniqueFd separate_output;
};

class Session {
  public:
    // While more bytes than this wait to be sent, nothing is read: a host that does not read its
    // replies cannot make us hold more than this and what one command can cause.
    static constexpr std::size_t kMaxPendingOutput = std::size_t{8} << 20;

    // `slots` are borrowed and outlive the session.
    Session(HostLink link, std::list<Slot>& slots, bool compress);

    // The descriptors to wait for at this moment; negative: none.
    int ReadableFd() const;
    int WritableFd() const;
    std::optional<Clock::time_point> Deadline() const;

    void OnReadable();
    void OnWritable();
    void Send();  // what no descriptor has refused yet
    void OnDeadline();

    bool Over() const { return over_; }
    bool Failed() const { return failed_; }  // ended by the host's fault or the link's

    // While this holds, replies of devices have to wait where they are.
    bool Congested() const { return output_.Pending() > kMaxPendingOutput; }

    // Follow a change of the slot's `plugged`. Before the version exchange nothing is offered: all
    // plugged devices are when it is done.
    void Offer(Slot& slot);
    void Withdraw(Slot& slot) { mappings_.Withdraw(slot); }

    // Maps and unmaps the devices that have come or gone by themselves.
    void FollowDevices() { mappings_.FollowPresence(); }
    bool Mapped(const Slot& slot) const { return mappings_.Mapped(slot); }

    // Unmaps everything and is over when the host has taken note, or soon after.
    void Close();

  private:
    int OutputFd() const;
    void HandleInput();
    void HandleWritten(Progress progress);
    void Handle(ByteView whole);
    void OnVersion(std::uint32_t version);
    void EndClosing();
    void End(bool failed, const std::string& reason);

    const HostLink link_;
    std::list<Slot>& slots_;

    MessageReader reader_;
    OutputQueue output_;
    Mappings mappings_;  // of devices that reply to output_
    bool version_known_ = false;
    bool closing_ = false;
    bool over_ = false;
    bool failed_ = false;
    std::optional<Clock::time_point> deadline_;          // of the version exchange or the close
    std::optional<Clock::time_point> message_deadline_;  // of a message that has come in part
};

}  // namespace remote
