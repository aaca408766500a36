// A USB microphone without a body. Its sound is a running number: every sample is the one before
// plus 1 (modulo 2^16), so that what a driver records shows each byte that was lost, doubled or
// displaced on the way.
//
// It is a USB Audio 1.0 device of high speed with one channel of 16 bits and 44,100 samples a
// second. Eight packets a millisecond make URBs of several packets, and since a packet carries 5 or
// 6 samples but the driver makes room for 7, there is a gap behind each that the reply leaves out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "remote/device/Command.h"
#include "remote/device/Device.h"
#include "remote/device/SubmittedNumbers.h"
#include "remote/io/Bytes.h"
#include "vm/microphone/Lies.h"
#include "wire/UsbipServer.h"

namespace remote {

DeviceInfo MicrophoneInfo();
usbip_op_device MicrophoneRecord();

// One attachment.
class Microphone {
  public:
    explicit Microphone(const Lies& lies) : lies_(lies) {}

    // Takes one command and returns the reply. None: it follows later.
    Bytes TakeCommand(const Command& command);

    // When the packets of the first URB will have been recorded.
    std::optional<Clock::time_point> Due() const;

    // The reply to that URB.
    Bytes TakeRecording();

  private:
    struct Urb {
        std::uint32_t seqnum;
        Clock::time_point due;
        std::uint32_t room;  // length of its buffer
        std::vector<usbip_iso_packet_descriptor> packets;
    };

    void Twist(Lie::About about, SubmitReply& reply, std::uint32_t room);  // when its time has come
    std::optional<Bytes> Control(const std::uint8_t* setup);
    Bytes Submit(const Command& command);
    Bytes Unlink(std::uint32_t seqnum, std::uint32_t target);

    const Lies lies_;
    SubmittedNumbers submitted_;
    bool streaming_ = false;  // the alternate setting with the endpoint is selected
    std::deque<Urb> urbs_;
    Clock::time_point recorded_until_;  // the end of the last one
    std::uint32_t phase_ = 0;           // time not yet sampled, in units of 1 / (44,100 * 8000) s
    std::uint16_t sample_ = 0;          // the next one
    std::uint32_t replies_ = 0;         // with sound
    std::size_t told_ = 0;              // lies
};

}  // namespace remote
