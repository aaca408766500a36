// What came of one attempt to read or write without blocking.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstdint>

namespace remote {

enum class Progress : std::uint8_t {
    kMoved,   // some bytes
    kLater,   // nothing for now
    kEnd,     // reading only: the other side has closed
    kFailed,  // errno says why
};

// Of what read or write has returned.
inline Progress ProgressOf(ssize_t count) {
    if (count > 0) return Progress::kMoved;
    if (count == 0) return Progress::kEnd;
    return errno == EAGAIN || errno == EINTR ? Progress::kLater : Progress::kFailed;
}

}  // namespace remote
