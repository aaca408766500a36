// Looks into the front of zlib streams, one after the other.
#pragma once

#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <string>
#include <string_view>

namespace xj_usbip {

// One thread at a time.
class Inflater {
  public:
    Inflater() {
        if (inflateInit(&stream_) != Z_OK) throw std::bad_alloc();
    }
    ~Inflater() { inflateEnd(&stream_); }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    // Forgets the stream before.
    void Begin() { inflateReset(&stream_); }

    // Takes the next bytes of the stream and appends to `to`, up to `most` bytes in all. What does
    // not inflate adds nothing.
    void Feed(std::string_view deflated, std::string& to, std::size_t most) {
        stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(deflated.data()));
        stream_.avail_in = static_cast<uInt>(deflated.size());
        while (to.size() < most) {
            char piece[4096];
            const std::size_t room = std::min(sizeof piece, most - to.size());
            stream_.next_out = reinterpret_cast<Bytef*>(piece);
            stream_.avail_out = static_cast<uInt>(room);
            const int result = inflate(&stream_, Z_NO_FLUSH);
            to.append(piece, room - stream_.avail_out);
            if (result != Z_OK || stream_.avail_out != 0) break;
        }
    }

  private:
    z_stream stream_{};
};

}  // namespace xj_usbip
