#include "remote/bridge/UsbipServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "remote/io/InputBuffer.h"
#include "remote/io/Log.h"

namespace remote {
namespace {

// A server whose machine has vanished is noticed after about 15 s, idle or not; so is one that
// takes nothing of what waits for it.
constexpr int kIdleSeconds = 5;
constexpr int kProbeSeconds = 5;
constexpr int kProbes = 2;
constexpr unsigned kUnacknowledgedMilliseconds = 15'000;

void set_options(int fd) {
    const auto set = [fd](int level, int option, int value) {
        setsockopt(fd, level, option, &value, sizeof value);
    };
    set(IPPROTO_TCP, TCP_NODELAY, 1);
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, kIdleSeconds);
    set(IPPROTO_TCP, TCP_KEEPINTVL, kProbeSeconds);
    set(IPPROTO_TCP, TCP_KEEPCNT, kProbes);
    set(IPPROTO_TCP, TCP_USER_TIMEOUT, kUnacknowledgedMilliseconds);
}

// False: the time is up.
bool wait_for(int fd, short events, Clock::time_point deadline) {
    pollfd wanted{fd, events, 0};
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        const int ready = poll(&wanted, 1, static_cast<int>(left.count()));
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return false;
    }
}

// Reads the list from a new connection. Returns why it cannot, or nothing.
std::string read_list(int fd, Clock::time_point deadline, ListReader& reader) {
    std::string too_late = "the server does not answer";
    if (!wait_for(fd, POLLOUT, deadline)) return too_late;
    if (const int error = ConnectError(fd)) return ErrorText(error);
    const Bytes request = EncodeListRequest();  // small enough for the empty socket to take it
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) return ErrorText(errno);
    InputBuffer input;
    while (!reader.Done()) {
        if (!wait_for(fd, POLLIN, deadline)) return too_late;
        const Progress progress = input.ReadFrom(fd);
        if (progress == Progress::kFailed) return ErrorText(errno);
        if (progress == Progress::kEnd) {
            return "the server closes the connection in the middle of its answer";
        }
        input.Take(reader.Read(input.Unread()));
        if (!reader.Error().empty()) return reader.Error();
    }
    return {};
}

}  // namespace

std::optional<UsbipServer> UsbipServer::Resolve(const std::string& name, std::string& error) {
    const bool bracketed = name.starts_with('[');
    const std::size_t host_end = bracketed ? name.find(']') : name.find(':');
    std::string host = name.substr(bracketed ? 1 : 0, host_end - (bracketed ? 1 : 0));
    std::string rest = host_end == std::string::npos ? "" : name.substr(host_end + bracketed);
    const std::string port = rest.empty() ? kUsbipServerPort : rest.substr(1);
    if (host.empty() || port.empty() || (!rest.empty() && rest.front() != ':') ||
        (bracketed && host_end == std::string::npos)) {
        error = "'" + name + "' is not HOST[:PORT]";
        return std::nullopt;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int failure = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (failure != 0) {
        error = name + ": " + gai_strerror(failure);
        return std::nullopt;
    }
    UsbipServer server;
    server.name_ = name;
    server.owner_.reset(found, freeaddrinfo);
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next)
        server.addresses_.push_back(one);
    return server;
}

posix::UniqueFd UsbipServer::Connect(std::size_t which) const {
    const addrinfo& address = *addresses_[which];
    posix::UniqueFd fd(
        socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!fd) return fd;
    set_options(fd.Get());
    if (connect(fd.Get(), address.ai_addr, address.ai_addrlen) != 0 && errno != EINPROGRESS) {
        const int error = errno;
        fd = posix::UniqueFd();
        errno = error;
    }
    return fd;
}

std::optional<std::vector<ServedDevice>> UsbipServer::List(std::string& error) const {
    const auto deadline = Clock::now() + kServerTimeout;
    for (std::size_t which = 0; which < Addresses(); ++which) {
        const posix::UniqueFd fd = Connect(which);
        ListReader reader;
        error = fd ? read_list(fd.Get(), deadline, reader) : ErrorText(errno);
        if (error.empty()) return reader.Devices();
    }
    error = name_ + ": " + error;
    return std::nullopt;
}

int ConnectError(int fd) {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

}  // namespace remote
