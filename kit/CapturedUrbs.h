// Makes of PDUs what usbmon shows: the submission of an URB, and its completion.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

#include "kit/Pcapng.h"
#include "wire/UsbipPdu.h"
#include "xj-client-usbip/kit/Capture.h"

namespace xj_usbip {

// Any thread.
class Capture::Urbs {
  public:
    // The packet for a PDU, as AppendPacket makes it; empty when there is none to show.
    std::string Packet(const TappedPdu& pdu);

  private:
    // What a reply does not say of its URB.
    struct Submitted {
        UsbmonPacket packet;
        std::uint64_t unlinks = 0;  // the other URB, if it is no URB but an unlink of one
    };

    std::string OnSubmit(const TappedPdu& pdu, const usbip_header& header, UsbmonPacket packet);
    std::string OnReply(const TappedPdu& pdu, const usbip_header& header, UsbmonPacket packet);
    std::string OnUnlinked(const usbip_header& header, UsbmonPacket packet);

    void Remember(std::uint64_t id, const Submitted& submitted);
    bool Take(std::uint64_t id, Submitted& submitted);

    std::mutex mutex_;
    std::unordered_map<std::uint64_t, Submitted> submitted_;  // guarded by mutex_
    std::deque<std::uint64_t> order_;  // guarded by mutex_: in which they came, answered ones too
};

}  // namespace xj_usbip
