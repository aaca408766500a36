// The program's one thread: a poll loop over signals, typed commands, the listener and the session
// of the one host that is served at a time.
#pragma once

#include <poll.h>

#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "posix/Listener.h"
#include "remote/Control.h"
#include "remote/channel/Session.h"
#include "remote/channel/Slot.h"
#include "remote/device/Device.h"

namespace remote {

class Server {
  public:
    // Borrowed descriptors; negative: not there.
    struct Controls {
        int signals = -1;   // a signalfd: SIGUSR1 reports the counters, any other signal ends
        int commands = -1;  // lines: list, plug N, unplug N, quit; its end is ignored
        int answers = -1;   // where their answers are written, one line each
        Control* control = nullptr;
    };

    Server(std::vector<std::unique_ptr<Device>> devices, bool compress, Controls controls);

    // Both serve until told to end; the second one also until its host has gone. False: the host
    // or its link was at fault, or data of a device is lost.
    bool Run(posix::Listener& listener);
    bool Run(HostLink link);

    void ReportCounters() const;

    // For whoever is asked to, in the loop. These return an error text; empty: it is done.
    std::string Plug(std::uint32_t number, bool plugged);
    std::string Remove(std::uint32_t number);  // for good: no other device gets its number
    void Add(std::unique_ptr<Device> device);
    std::uint32_t NextNumber() const { return last_number_ + 1; }
    void Quit();
    const std::list<Slot>& Slots() const { return slots_; }
    const char* State(const Slot& slot) const;
    static std::string Describe(const Slot& slot, const char* state);

  private:
    bool Loop(posix::Listener* listener);
    bool DataSafe() const;
    void ServeSession(short readable, short writable);
    void Welcome(posix::UniqueFd host);
    bool Congested() const;
    pollfd DevicePoll(const Device& device) const;
    void OnDevices(std::span<const pollfd> fds);  // one for each slot
    int PollTimeout() const;                      // milliseconds
    void OnSignal();
    void OnCommands();
    void OnCommand(const std::string& line);
    std::list<Slot>::iterator Find(std::uint32_t number);
    void Answer(const std::string& line) const;

    std::list<Slot> slots_;  // borrowed by the session: they stay where they are
    const bool compress_;
    Controls controls_;
    std::unique_ptr<Session> session_;
    std::string served_;  // who has the session, since when
    std::string typed_;   // a command line without its end yet
    bool quitting_ = false;
    std::uint32_t last_number_ = 0;
    bool removed_safely_ = true;  // what was written to devices that were removed
};

}  // namespace remote
