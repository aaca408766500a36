// A listening socket for the host's tests. Every failure throws.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

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
    explicit Listener(int backlog = 4) : socket_(Checked(::socket(AF_INET, SOCK_STREAM, 0))) {
        in_.sin_family = AF_INET;
        in_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof in_;
        Checked(::bind(socket_.Get(), reinterpret_cast<sockaddr*>(&in_), size));
        Checked(::listen(socket_.Get(), backlog));
        Checked(::getsockname(socket_.Get(), reinterpret_cast<sockaddr*>(&in_), &size));
    }
    explicit Listener(const std::string& path)
        : socket_(Checked(::socket(AF_UNIX, SOCK_STREAM, 0))) {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        Checked(::bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
        Checked(::listen(socket_.Get(), 4));
    }

    std::string Port() const { return ':' + std::to_string(ntohs(in_.sin_port)); }

    UniqueFd Connect() const {
        UniqueFd client(Checked(::socket(AF_INET, SOCK_STREAM, 0)));
        Checked(::connect(client.Get(), reinterpret_cast<const sockaddr*>(&in_), sizeof in_));
        return client;
    }

    UniqueFd Accept() const {
        pollfd pending{socket_.Get(), POLLIN, 0};
        if (::poll(&pending, 1, kSoonMs) != 1) throw std::runtime_error("nobody connects");
        return UniqueFd(Checked(::accept(socket_.Get(), nullptr, nullptr)));
    }

  private:
    UniqueFd socket_;
    sockaddr_in in_{};
};

}  // namespace host
