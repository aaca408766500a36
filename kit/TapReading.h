// The tap's way in: what the remote side sends.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "kit/Inflater.h"
#include "kit/TapSending.h"
#include "wire/ChannelMessages.h"

namespace xj_usbip {

// Used by the reading thread alone.
class Tap::Reading {
  public:
    Reading(IPluginStreamRaw& stream, ITapEvents& events, Devices& devices, Sending& sending)
        : stream_(stream), events_(events), devices_(devices), sending_(sending), last_(devices) {}

    // As in IPluginStreamRaw.
    int Read(void* buf, unsigned long len, unsigned long* got, unsigned long reserved);

  private:
    // Reads the head of the next message that the module is to have. False: the stream has ended.
    bool Begin();
    bool Hold(std::size_t size);  // so many bytes of the message more
    bool Skip();                  // the rest of the message

    enum class Fate { Passes, Swallowed, StreamEnded };
    // The message, whose head is held, is such a one.
    void OnForward();
    void OnUnmap();
    Fate OnMap();

    // The next bytes of the message pass.
    void Follow(std::string_view bytes);
    void FollowPlain(std::string_view data);
    void FollowCompressed(std::string_view data);
    void Show();  // the PDU whose front is in front_

    IPluginStreamRaw& stream_;
    ITapEvents& events_;
    Devices& devices_;
    Sending& sending_;

    // The message that passes: its first bytes are held, [given_, held_) for the module.
    std::array<char, sizeof(usbip_dev_map)> bytes_;
    std::size_t held_ = 0;
    std::size_t given_ = 0;
    std::uint64_t left_ = 0;  // not yet read

    // The forward that passes; null: nobody wants to know.
    Devices::Last last_;
    Followed* followed_ = nullptr;  // in last_
    usbip_forward forward_{};
    std::uint64_t data_left_ = 0;  // of its data

    // The PDU that passes.
    Inflater inflater_;
    std::string front_;           // its header, and what is shown of its data
    std::uint64_t pdu_left_ = 0;  // behind the header
    std::uint64_t pdu_size_ = 0;
    std::size_t shown_ = 0;  // of the data
    bool showing_ = false;
};

}  // namespace xj_usbip
