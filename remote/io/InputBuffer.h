// Bytes received from a stream until they are taken from the front, message by message. The buffer
// grows with the bytes that have come, not with a length that was announced.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <utility>

#include "remote/io/Bytes.h"
#include "remote/io/Progress.h"

namespace remote {

class InputBuffer {
  public:
    // Large enough that a 120 KiB request of the kernel arrives in one or two reads.
    static constexpr std::size_t kReadChunk = std::size_t{256} << 10;

    // Where the next bytes of the stream go; never empty. Ends the life of what was taken.
    ByteSpan Space() {
        if (begin_ != 0) {
            std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
                      buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
            end_ -= std::exchange(begin_, 0);
        }
        if (buffer_.size() - end_ < kReadChunk) buffer_.resize(end_ + kReadChunk);
        return ByteSpan(buffer_).subspan(end_);
    }
    void Advance(std::size_t count) { end_ += count; }  // `count` bytes were placed in Space

    // Reads once, what is there and has room in Space.
    Progress ReadFrom(int fd) {
        const ByteSpan space = Space();
        const ssize_t count = read(fd, space.data(), space.size());
        if (count > 0) Advance(static_cast<std::size_t>(count));
        return ProgressOf(count);
    }

    ByteView Unread() const { return ByteView(buffer_).subspan(begin_, end_ - begin_); }

    // The first `count` bytes that are unread, which must be there.
    ByteView Take(std::size_t count) {
        const ByteView taken = Unread().first(count);
        begin_ += count;
        return taken;
    }

  private:
    Bytes buffer_;
    std::size_t begin_ = 0;  // bytes before were taken
    std::size_t end_ = 0;    // bytes before were received
};

}  // namespace remote
