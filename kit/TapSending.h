// The tap's way out: what the module writes, and the ends of devices that never reached it.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kit/Inflater.h"
#include "kit/MappedDevices.h"

namespace xj_usbip {

class Tap::Sending {
  public:
    Sending(IPluginStreamRaw& stream, ITapEvents& events, Devices& devices)
        : stream_(stream), events_(events), devices_(devices), last_(devices) {}

    // As in IPluginStreamRaw. One thread at a time.
    int Write(const void* data, unsigned long len, unsigned long* written, unsigned long reserved);

    // Tells the remote side that device `id` has ended, at once or behind the message that is being
    // written. False: too many wait for that, so the remote side does not read. Any thread.
    bool Refuse(std::uint32_t id);

  private:
    // Follows a whole message.
    void Look(std::string_view message);
    void LookAtForward(std::string_view message);
    // Writes the ends that wait, unless a message is being written: who writes it calls this too.
    void WriteEnds();

    IPluginStreamRaw& stream_;
    ITapEvents& events_;
    Devices& devices_;

    std::mutex writing_;
    std::uint64_t left_ = 0;  // guarded by writing_: of the message that has been begun

    // The sending thread's.
    Devices::Last last_;
    Inflater inflater_;
    std::string front_;  // of a PDU that came compressed

    std::mutex ends_mutex_;             // may be taken while writing_ is held
    std::vector<std::uint32_t> ends_;   // guarded by ends_mutex_
    std::atomic<int> ends_waiting_{0};  // how many, to look at without the lock
};

}  // namespace xj_usbip
