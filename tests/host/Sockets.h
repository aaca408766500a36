// Listening sockets and socket pairs for the host's tests. Every failure to make one throws.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "host/UniqueFd.h"

namespace host {

constexpr int kSoonMs = 10'000;  // far above what anything in these tests takes

inline int Checked(int result) {
    if (result < 0) throw std::system_error(errno, std::generic_category());
    return result;
}

class Listener {
  public:
    // On a port of 127.0.0.1 that the kernel chooses.
    static Listener Tcp(int backlog = 4) {
        Listener listener(AF_INET);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        Checked(::bind(listener.socket_.Get(), generic, size));
        Checked(::listen(listener.socket_.Get(), backlog));
        Checked(::getsockname(listener.socket_.Get(), generic, &size));
        listener.address_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        return listener;
    }

    static Listener Unix(const std::string& path) {
        Listener listener(AF_UNIX);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        Checked(::bind(listener.socket_.Get(), reinterpret_cast<const sockaddr*>(&address),
                       sizeof address));
        Checked(::listen(listener.socket_.Get(), 4));
        listener.address_ = "unix:" + path;
        return listener;
    }

    // A connection of our own to it; Tcp only.
    UniqueFd Connect() const {
        UniqueFd client(Checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
        sockaddr_in address{};
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        Checked(::getsockname(socket_.Get(), generic, &size));
        Checked(::connect(client.Get(), generic, size));
        return client;
    }

    UniqueFd Accept() const {
        pollfd pending{socket_.Get(), POLLIN, 0};
        if (::poll(&pending, 1, kSoonMs) != 1) throw std::runtime_error("nobody connects");
        return UniqueFd(Checked(::accept(socket_.Get(), nullptr, nullptr)));
    }
    const std::string& Address() const { return address_; }

  private:
    explicit Listener(int family)
        : socket_(Checked(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0))) {}

    UniqueFd socket_;
    std::string address_;
};

inline std::pair<UniqueFd, UniqueFd> MakePair() {
    int pair[2];
    Checked(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    return {UniqueFd(pair[0]), UniqueFd(pair[1])};
}

}  // namespace host
