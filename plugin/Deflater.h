// Makes the zlib streams that travel in forward messages.
#pragma once

#include <zlib.h>

#include <span>
#include <string_view>

// As zlib's compress() makes them, byte for byte. Setting a stream up means to allocate and to
// clear 268 KB, which is most of the work for a small PDU: it is done once. For one thread.
class CDeflater {
  public:
    CDeflater() = default;
    ~CDeflater() {
        if (m_bSetUp) deflateEnd(&m_stream);
    }
    CDeflater(const CDeflater&) = delete;
    CDeflater& operator=(const CDeflater&) = delete;

    // To the front of `to`, which has room for compressBound() of the bytes. Returns the length; 0
    // when there is no memory.
    unsigned long Deflate(std::string_view bytes, std::span<char> to) {
        if (!m_bSetUp) m_bSetUp = deflateInit(&m_stream, Z_DEFAULT_COMPRESSION) == Z_OK;
        if (!m_bSetUp) return 0;
        deflateReset(&m_stream);
        // Read only: zlib's own interface says so where it is compiled with ZLIB_CONST.
        m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
        m_stream.avail_in = static_cast<uInt>(bytes.size());
        m_stream.next_out = reinterpret_cast<Bytef*>(to.data());
        m_stream.avail_out = static_cast<uInt>(to.size());
        deflate(&m_stream, Z_FINISH);
        return m_stream.total_out;
    }

  private:
    z_stream m_stream{};
    bool m_bSetUp = false;
};
