// The stream that the host lends to the module, over a connected stream socket: TCP, a Unix
// socket, or one end of a socket pair.
//
// Hosts with another transport can copy its three ideas:
//   - one system call fills the caller's buffer first and reads ahead with what is left, so that
//     8-byte headers cost no call of their own and large bodies are never copied;
//   - ending is a flag and a shutdown, which wakes a blocked Read and a blocked Write at once;
//   - a stream that has ended in any way stays ended, for both directions.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "xj-client-usbip/PluginAbi.h"
#include "xj-client-usbip/Reference.h"

namespace host {

class SocketStream : public IPluginStreamRaw, protected CReference {
  public:
    // Takes over `socket`, which is connected and blocking. It is closed with the last reference,
    // which may be the module's: whoever wants the connection gone before that calls End.
    explicit SocketStream(int socket) : socket_(socket) {}

    long AddRef() override;
    long Release() override;
    void Reserved1() override {}

    // One thread at a time.
    int Read(void* buf, unsigned long len, unsigned long* got, unsigned long reserved) override;
    // One thread at a time, which may be another than the reader's.
    int Write(const void* data, unsigned long len, unsigned long* written,
              unsigned long reserved) override;

    // Ends the stream: a Read or Write in progress and every later one fails. Any thread, any
    // number of times.
    void End();

    // How many bytes have come. The reading thread, or any once it does not read any more.
    std::uint64_t Received() const { return received_; }

    // The errno value of the failure that ended the stream; 0 for an orderly end or none yet.
    int Error() const { return error_; }

  private:
    ~SocketStream() override;

    int Fail(int error);

    // Room for many small PDUs with their headers; what a larger message brings beyond it goes
    // straight to the caller.
    static constexpr std::size_t kReadAhead = 16 * 1024;

    const int socket_;  // ours to close
    std::atomic<bool> ended_{false};
    std::atomic<int> error_{0};

    // Owned by the reading thread: bytes [begin_, end_) are received and not yet delivered.
    std::uint64_t received_ = 0;
    std::array<std::byte, kReadAhead> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

}  // namespace host
