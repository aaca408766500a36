// Compresses a device's PDUs where that makes them arrive sooner. Pure: no descriptor, no thread.
#pragma once

#include <zlib.h>

#include <cstddef>

#include "remote/io/Bytes.h"

namespace remote {

class Compressor {
  public:
    // PDUs that go as they are after one that does not pay.
    static constexpr unsigned kPause = 15;

    Compressor() = default;
    ~Compressor();
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    // The PDU as a zlib stream, whose bytes live until the next call. Empty: it had better go as it
    // is.
    ByteView Compress(ByteView pdu);

  private:
    bool Pays(ByteView data);

    // Set up by the first PDU, and kept since that costs more than a short PDU.
    z_stream stream_{};
    Bytes deflated_;  // not shrunk: the last result is at its front
    std::size_t size_ = 0;

    bool trusted_ = false;  // the last one has paid
    unsigned pause_ = 0;    // PDUs until the next attempt
};

}  // namespace remote
