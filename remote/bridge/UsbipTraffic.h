// The PDUs of one imported device, both ways, between the host's commands and the server's byte
// stream. Pure: no descriptor, no thread.
//
// PDUs pass untouched, whole and in order. What is under way is remembered by the sequence numbers
// that the host's kernel gave, because a reply does not tell its own length and because an unlink
// has to be answered exactly once, whatever the server does (see UsbipTraffic.cpp).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "remote/device/Command.h"
#include "remote/device/Device.h"
#include "remote/device/SubmittedNumbers.h"
#include "remote/io/Bytes.h"
#include "remote/io/InputBuffer.h"
#include "remote/io/OutputQueue.h"

namespace remote {

class UsbipTraffic {
  public:
    // Bytes that may wait for a server that does not read. What the host's kernel has in flight for
    // a device stays far below: usb-storage one request of at most 1 MiB, audio some dozens of
    // small URBs, network adapters about 1 MiB, and usbfs 16 MiB for all its users.
    static constexpr std::size_t kMaxQueued = std::size_t{32} << 20;

    // URBs under way at a time: what usbfs can submit within its 16 MiB. About 6 MiB of our memory.
    static constexpr std::size_t kMaxUrbs = 65536;

    // A server takes milliseconds to answer an unlink. The host's kernel waits for ever, and no
    // other device on that controller comes up while it does, so that such a device has to go.
    static constexpr std::chrono::seconds kUnlinkTimeout{10};

    // One command of the host, for Output. Our own answers go to `sink` at once. Returns what is
    // wrong, upon which the device has to end, or nothing.
    std::string TakeCommand(const Command& command, ReplySink& sink);

    // Takes the whole replies at the front of `input` and passes them on. Returns as TakeCommand
    // does.
    std::string TakeReplies(InputBuffer& input, ReplySink& sink);

    // Bytes for the server.
    OutputQueue& Output() { return output_; }
    const OutputQueue& Output() const { return output_; }

    // When the server must have answered the oldest unlink.
    std::optional<Clock::time_point> Deadline() const;

  private:
    struct Urb {  // what its command said
        bool out;
        std::uint32_t length;
        std::vector<std::uint32_t> packets;  // length of each
        bool given_back = false;  // RET_UNLINK was passed on: a reply that still comes is dropped
        std::optional<std::uint32_t> unlink = {};  // sequence number of the unlink under way
    };
    struct Unlink {
        std::uint32_t target;
        Clock::time_point due;
    };

    std::string Submit(const Command& command);
    std::string Queue(ByteView pdu);
    void OnRetUnlink(std::uint32_t seqnum, Bytes pdu, ReplySink& sink);

    OutputQueue output_;
    SubmittedNumbers submitted_;
    std::unordered_map<std::uint32_t, Urb> urbs_;  // submitted and not answered
    std::map<std::uint32_t, Unlink> unlinks_;      // at the server, by their own sequence numbers
};

}  // namespace remote
