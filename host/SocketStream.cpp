#include "host/SocketStream.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace host {
namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = -1;

template <typename SystemCall>
ssize_t retry_interrupted(SystemCall call) {
    ssize_t result = 0;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

}  // namespace

SocketStream::~SocketStream() {
    ::close(socket_);
}

long SocketStream::AddRef() {
    return CReference::AddRef();
}
long SocketStream::Release() {
    return CReference::Release();
}

int SocketStream::Read(void* buf, unsigned long len, unsigned long* got, unsigned long) {
    *got = 0;
    // Success with no bytes would make the caller ask again for ever, so no bytes is a failure.
    if (ended_ || len == 0) return kFailure;
    if (begin_ < end_) {
        *got = std::min(len, end_ - begin_);
        std::memcpy(buf, buffer_.data() + begin_, *got);
        begin_ += *got;
        return kSuccess;
    }
    iovec parts[] = {{buf, len}, {buffer_.data(), buffer_.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    const ssize_t count = retry_interrupted([&] { return ::recvmsg(socket_, &message, 0); });
    if (count <= 0) return Fail(count < 0 ? errno : 0);
    received_ += static_cast<std::uint64_t>(count);
    *got = std::min(len, static_cast<unsigned long>(count));
    begin_ = 0;
    end_ = static_cast<std::size_t>(count) - *got;
    return kSuccess;
}

int SocketStream::Write(const void* data, unsigned long len, unsigned long* written,
                        unsigned long) {
    *written = 0;
    if (ended_ || len == 0) return kFailure;
    const ssize_t count =
        retry_interrupted([&] { return ::send(socket_, data, len, MSG_NOSIGNAL); });
    if (count <= 0) return Fail(count < 0 ? errno : 0);
    *written = static_cast<unsigned long>(count);
    return kSuccess;
}

int SocketStream::Fail(int error) {
    // Only the failure that ends the stream is worth telling; those that follow from it are not.
    if (!ended_.exchange(true)) error_ = error;
    End();
    return kFailure;
}

void SocketStream::End() {
    // The flag as well as the shutdown: TCP still delivers what it received before.
    ended_ = true;
    ::shutdown(socket_, SHUT_RDWR);
}

}  // namespace host
