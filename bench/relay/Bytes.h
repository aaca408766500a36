// Bytes through stream sockets, many PDUs for each system call.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

// More than a socket of the default size ever holds.
constexpr std::size_t kMostBytes = 256 * 1024;

// All of it, in order. Uses the pieces up. False: the socket takes no more.
inline bool SendAll(int socket, std::span<iovec> pieces) {
    while (!pieces.empty()) {
        msghdr message{};
        message.msg_iov = pieces.data();
        message.msg_iovlen = pieces.size();
        const ssize_t count = sendmsg(socket, &message, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        auto sent = static_cast<std::size_t>(count);
        while (!pieces.empty() && sent >= pieces.front().iov_len) {
            sent -= pieces.front().iov_len;
            pieces = pieces.subspan(1);
        }
        if (sent == 0) continue;
        pieces.front().iov_base = static_cast<char*>(pieces.front().iov_base) + sent;
        pieces.front().iov_len -= sent;
    }
    return true;
}

// What a socket brings, of which whole PDUs are taken from the front. Used by one thread.
class Reader {
  public:
    explicit Reader(int socket) : socket_(socket), buffer_(kMostBytes) {}

    std::string_view Bytes() const { return {buffer_.data() + begin_, end_ - begin_}; }
    void Take(std::size_t size) { begin_ += size; }

    // More bytes behind those that are there, with room for `whole` in all. False: the end.
    bool Fill(std::size_t whole) {
        if (buffer_.size() - begin_ < whole || begin_ == end_) {
            Bytes().copy(buffer_.data(), end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        if (buffer_.size() < whole) buffer_.resize(whole);
        ssize_t count = 0;
        do {
            count = recv(socket_, buffer_.data() + end_, buffer_.size() - end_, 0);
        } while (count < 0 && errno == EINTR);
        if (count <= 0) return false;
        end_ += static_cast<std::size_t>(count);
        return true;
    }

  private:
    int socket_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};
