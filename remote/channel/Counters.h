// What a device has moved since the program started, over all hosts. Owned by the server's thread.
#pragma once

#include <cstdint>
#include <string>

#include "remote/device/Command.h"
#include "remote/io/Bytes.h"

namespace remote {

struct Counters {
    std::uint64_t urbs_in = 0;  // URBs submitted, by their direction as USB sees it
    std::uint64_t urbs_out = 0;
    std::uint64_t bytes_in = 0;  // transfer data, isochronous descriptors included
    std::uint64_t bytes_out = 0;
    std::uint64_t unlinks = 0;
    std::uint64_t stalls = 0;      // URBs that ended with -EPIPE
    std::uint64_t compressed = 0;  // forwards of both directions
    std::uint64_t plain = 0;

    void CountCommand(const Command& command, bool was_compressed);
    void CountReply(ByteView pdu);
    void CountForward(bool was_compressed) { ++(was_compressed ? compressed : plain); }
    std::string Text() const;
};

}  // namespace remote
