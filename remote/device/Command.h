// A command of the host's kernel, decoded once, where it comes in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "remote/io/Bytes.h"

namespace remote {

struct Command {
    ByteView pdu;              // the whole of it; all views borrow from the same bytes
    std::uint32_t seqnum = 0;  // pairs the reply with it
    std::uint32_t devid = 0;   // as the host's kernel knows the device

    // CMD_UNLINK: the sequence number of the URB to give back. The rest is CMD_SUBMIT's.
    std::optional<std::uint32_t> unlinks;

    bool in = false;
    std::uint32_t endpoint = 0;  // number, without the direction
    std::uint32_t transfer_flags = 0;
    std::uint32_t length = 0;             // transfer_buffer_length
    std::array<std::uint8_t, 8> setup{};  // of a control transfer, in USB byte order
    ByteView data;                        // OUT only: `length` bytes
    ByteView packets;                     // isochronous packet descriptors

    std::size_t PacketCount() const;
};

// Checks and decodes one whole PDU. Returns what is wrong with it, or nothing.
std::string DecodeCommand(ByteView pdu, Command& command);

}  // namespace remote
