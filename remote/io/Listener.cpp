#include "remote/io/Listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "remote/io/Log.h"

namespace remote {
namespace {

constexpr std::string_view kUnixPrefix = "unix:";
constexpr int kBacklog = 4;  // hosts that wait their turn
constexpr int kSocketType = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;

// A socket file that nobody listens at was left behind by a program that was killed.
void remove_stale(const sockaddr_un& address) {
    struct stat status {};
    if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode)) return;
    const posix::UniqueFd probe(socket(AF_UNIX, kSocketType, 0));
    if (connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
        errno == ECONNREFUSED) {
        unlink(address.sun_path);
    }
}

bool loopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        return ntohl(v4.sin_addr.s_addr) >> 24 == 127;
    }
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
}

std::string numeric_name(const sockaddr_storage& address, socklen_t length) {
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host.data(), host.size(),
                port.data(), port.size(), NI_NUMERICHOST | NI_NUMERICSERV);
    const std::string name = host.data();
    return (address.ss_family == AF_INET6 ? "[" + name + "]" : name) + ":" + port.data();
}

}  // namespace

std::unique_ptr<Listener> Listener::Open(const std::string& address, std::string& error) {
    if (address.starts_with(kUnixPrefix)) {
        return OpenUnix(address.substr(kUnixPrefix.size()), error);
    }
    const std::size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == address.size()) {
        error = address + ": expected HOST:PORT or unix:PATH";
        return nullptr;
    }
    std::string host = address.substr(0, colon);
    if (host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    return OpenTcp(host, address.substr(colon + 1), error);
}

std::unique_ptr<Listener> Listener::OpenUnix(const std::string& path, std::string& error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = "unix:" + path + ": a path of 1 to " + std::to_string(sizeof address.sun_path - 1) +
                " characters is needed";
        return nullptr;
    }
    path.copy(address.sun_path, path.size());
    remove_stale(address);
    std::unique_ptr<Listener> listener(new Listener);
    listener->socket_ = posix::UniqueFd(socket(AF_UNIX, kSocketType, 0));
    const int fd = listener->Fd();
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = "unix:" + path + ": " + ErrorText(errno);
        return nullptr;
    }
    listener->unlink_path_ = path;
    listener->name_ = "unix:" + path;
    // Nobody can connect before listen, so the mode is in force for everybody.
    if (chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0 || listen(fd, kBacklog) != 0) {
        error = "unix:" + path + ": " + ErrorText(errno);
        return nullptr;
    }
    return listener;
}

std::unique_ptr<Listener> Listener::OpenTcp(const std::string& host, const std::string& port,
                                            std::string& error) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int failure = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (failure != 0) {
        error = host + ":" + port + ": " + gai_strerror(failure);
        return nullptr;
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
    std::unique_ptr<Listener> listener(new Listener);
    listener->socket_ = posix::UniqueFd(socket(found->ai_family, kSocketType, 0));
    const int fd = listener->Fd();
    const int yes = 1;  // a restart need not wait for old connections to time out
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    if (bind(fd, found->ai_addr, found->ai_addrlen) != 0 || listen(fd, kBacklog) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        error = host + ":" + port + ": " + ErrorText(errno);
        return nullptr;
    }
    listener->private_ = loopback(bound);
    listener->name_ = numeric_name(bound, length);
    return listener;
}

Listener::~Listener() {
    if (!unlink_path_.empty()) unlink(unlink_path_.c_str());
}

posix::UniqueFd Listener::Accept() {
    posix::UniqueFd host(accept4(Fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!host) {
        if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) {
            Log("cannot accept a connection: %s", ErrorText(errno).c_str());
        }
        return host;
    }
    // Refused on a Unix socket, where neither is needed: small replies leave at once, and a host
    // whose machine has vanished is noticed.
    const int yes = 1;
    setsockopt(host.Get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    setsockopt(host.Get(), SOL_SOCKET, SO_KEEPALIVE, &yes, sizeof yes);
    return host;
}

}  // namespace remote
