// The other end of a stream, played by a test. Every wait ends with a failure at last.
#pragma once

#include <gtest/gtest.h>

#include <string_view>

#include "fakes/Patience.h"
#include "posix/Socket.h"

namespace posix::test {

class Peer : public UniqueFd {
  public:
    explicit Peer(UniqueFd socket = {}) : UniqueFd(std::move(socket)) {
        const timeval patience{kPatience.count(), 0};
        ::setsockopt(Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        ::setsockopt(Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    }
    std::string Read(std::size_t size) const {
        std::string bytes(size, '\0');
        EXPECT_EQ(::recv(Get(), bytes.data(), size, MSG_WAITALL), static_cast<ssize_t>(size));
        return bytes;
    }
    // What comes next, with all that has come already; nothing at the end.
    std::string ReadSome() const {
        std::string bytes(1 << 20, '\0');
        const ssize_t count = ::recv(Get(), bytes.data(), bytes.size(), 0);
        return bytes.substr(0, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    // What still comes before the other side closes the connection, as it must.
    std::string ReadToEnd() const {
        std::string bytes, next;
        while (!(next = ReadSome()).empty())
            bytes += next;
        EXPECT_EQ(::recv(Get(), next.data(), 1, 0), 0);  // also when it was reset
        return bytes;
    }
    void Write(std::string_view bytes) const {
        EXPECT_EQ(::send(Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
};

inline std::pair<Peer, UniqueFd> ConnectedPair() {
    int ends[2];
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    return {Peer(UniqueFd(ends[0])), UniqueFd(ends[1])};
}

// A port of this machine. Connections are refused until Listen.
class Port {
  public:
    Port() {
        std::string error;
        SocketAddress place = Resolve({.name = "127.0.0.1"}, -1, error).at(0);
        EXPECT_EQ(0, ::bind(socket_.Get(), place.Get(), place.size));
        ::getsockname(socket_.Get(), place.Get(), &place.size);
        address = place.ToAddress();
    }
    void Listen(int backlog) const { EXPECT_EQ(0, ::listen(socket_.Get(), backlog)); }
    Peer Accept() const {
        Peer peer(UniqueFd(::accept(socket_.Get(), nullptr, nullptr)));
        EXPECT_TRUE(peer) << "nobody connects";
        return peer;
    }

    Address address;

  private:
    Peer socket_{UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))};
};

}  // namespace posix::test
