// The replies of devices that answer by themselves.
#pragma once

#include <cstddef>
#include <cstdint>

#include "remote/io/Bytes.h"

namespace remote {

// Where a RET_SUBMIT begins: room for its header. The data of an IN transfer goes behind it, and
// isochronous packet descriptors behind that.
Bytes RoomForReply();

struct SubmitResult {
    std::uint32_t seqnum;           // of the command
    int status = 0;                 // 0 or a negative errno
    std::size_t actual_length = 0;  // bytes that were moved
    std::size_t packets = 0;        // isochronous packet descriptors in the reply
};

// Writes the header into what began as RoomForReply.
Bytes RetSubmit(const SubmitResult& result, Bytes reply = RoomForReply());

// `status`: -ECONNRESET for a URB that was unlinked or never seen, 0 for one that was answered.
Bytes RetUnlink(std::uint32_t seqnum, int status);

}  // namespace remote
