#include "host/Connect.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <charconv>
#include <cstring>
#include <thread>

#include "posix/Wait.h"

namespace host {
namespace {

constexpr int kResolveTimeoutMs = 30'000;
constexpr int kConnectTimeoutMs = 10'000;  // for each address of a name

// A silent peer counts as lost after 15 + 3 x 5 = 30 s; so does one that leaves what we sent
// unacknowledged, which keep-alive does not watch and the kernel would retry for 15 minutes.
constexpr int kKeepIdleSeconds = 15;
constexpr int kKeepIntervalSeconds = 5;
constexpr int kKeepCount = 3;
constexpr int kUnacknowledgedMs = 30'000;

constexpr char kUnixPrefix[] = "unix:";

bool is_port(const std::string& text) {
    unsigned port = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, failure] = std::from_chars(text.data(), end, port);
    return failure == std::errc() && stopped == end && port >= 1 && port <= 65535;
}

// One name lookup. getaddrinfo cannot be interrupted, so it runs on a detached thread that shares
// the ownership of all it touches and may be left behind when the program stops.
struct Lookup {
    Lookup(std::string host_name, std::string port_number)
        : name(std::move(host_name)), port(std::move(port_number)), done(posix::MakeEvent()) {}
    Lookup(const Lookup&) = delete;
    Lookup& operator=(const Lookup&) = delete;
    ~Lookup() {
        if (addresses != nullptr) ::freeaddrinfo(addresses);
    }

    void Run() {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = AI_NUMERICSERV;
        status = ::getaddrinfo(name.c_str(), port.c_str(), &hints, &addresses);
        finished = true;
        ::eventfd_write(done.Get(), 1);
    }

    const std::string name;
    const std::string port;
    const posix::UniqueFd done;
    std::atomic<bool> finished{false};  // the two below belong to the thread until this is set
    int status = 0;
    addrinfo* addresses = nullptr;
};

std::shared_ptr<Lookup> resolve(const Target& target, int stop, std::string& error) {
    auto lookup = std::make_shared<Lookup>(target.name, target.port);
    std::thread([lookup] { lookup->Run(); }).detach();
    posix::WaitFor(lookup->done.Get(), POLLIN, stop, kResolveTimeoutMs);
    if (lookup->finished && lookup->status == 0) return lookup;
    error = "cannot resolve " + target.name + ": " +
            (lookup->finished ? ::gai_strerror(lookup->status) : "no answer");
    return nullptr;
}

// A connected, blocking socket, or none and the reason.
posix::UniqueFd connect_to(const sockaddr* address, socklen_t size, int stop, std::string& error) {
    posix::UniqueFd socket(
        ::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    int failure = 0;
    if (!socket || ::connect(socket.Get(), address, size) != 0) failure = errno;
    if (failure == EINPROGRESS) {
        failure = ETIMEDOUT;
        if (posix::WaitFor(socket.Get(), POLLOUT, stop, kConnectTimeoutMs) == posix::Wake::Ready) {
            socklen_t length = sizeof failure;
            ::getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &failure, &length);
        }
    }
    if (failure == 0 && ::fcntl(socket.Get(), F_SETFL, 0) != 0) failure = errno;
    if (failure == 0) return socket;
    error = std::strerror(failure);
    return {};
}

void tune_tcp(int socket) {
    const auto set = [socket](int level, int name, int value) {
        ::setsockopt(socket, level, name, &value, sizeof value);
    };
    set(IPPROTO_TCP, TCP_NODELAY, 1);
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, kKeepIdleSeconds);
    set(IPPROTO_TCP, TCP_KEEPINTVL, kKeepIntervalSeconds);
    set(IPPROTO_TCP, TCP_KEEPCNT, kKeepCount);
    set(IPPROTO_TCP, TCP_USER_TIMEOUT, kUnacknowledgedMs);
}

posix::UniqueFd open_tcp(const Target& target, int stop, std::string& error) {
    const auto lookup = resolve(target, stop, error);
    const addrinfo* address = lookup ? lookup->addresses : nullptr;
    for (; address != nullptr && !posix::IsStopped(stop); address = address->ai_next) {
        posix::UniqueFd socket = connect_to(address->ai_addr, address->ai_addrlen, stop, error);
        if (!socket) continue;
        tune_tcp(socket.Get());
        return socket;
    }
    return {};
}

posix::UniqueFd open_unix(const std::string& path, int stop, std::string& error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);  // ParseAddress checked the length
    return connect_to(reinterpret_cast<const sockaddr*>(&address), sizeof address, stop, error);
}

}  // namespace

std::string ParseAddress(const std::string& text, Target& target) {
    if (text.rfind(kUnixPrefix, 0) == 0) {
        target = {Target::Kind::Unix, text.substr(std::strlen(kUnixPrefix)), {}};
        if (target.name.empty()) return "the path after unix: is missing";
        if (target.name.size() >= sizeof sockaddr_un::sun_path) {
            return "the path of a Unix socket has at most 107 bytes";
        }
        return {};
    }
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) return "expected HOST:PORT or unix:PATH";
    target = {Target::Kind::Tcp, text.substr(0, colon), text.substr(colon + 1)};
    std::string& name = target.name;
    if (name.size() > 2 && name.front() == '[' && name.back() == ']') {
        name = name.substr(1, name.size() - 2);
    } else if (name.find_first_of(":[]") != std::string::npos) {
        return "an IPv6 address stands in brackets: [::1]:9000";
    }
    if (name.empty()) return "the host before the colon is missing";
    if (!is_port(target.port)) return "the port is a number from 1 to 65535";
    return {};
}

std::string Describe(const Target& target) {
    switch (target.kind) {
        case Target::Kind::Unix:
            return kUnixPrefix + target.name;
        case Target::Kind::Command:
            return "command \"" + target.name + '"';
        case Target::Kind::Tcp:
            break;
    }
    const bool bare_colons = target.name.find(':') != std::string::npos;
    return (bare_colons ? '[' + target.name + ']' : target.name) + ':' + target.port;
}

std::optional<Link> Open(const Target& target, int stop, std::string& error) {
    Link link;
    posix::UniqueFd socket;
    switch (target.kind) {
        case Target::Kind::Tcp:
            socket = open_tcp(target, stop, error);
            break;
        case Target::Kind::Unix:
            socket = open_unix(target.name, stop, error);
            break;
        case Target::Kind::Command:
            link.child = Child::Start(target.name, socket, error);
            break;
    }
    if (!socket) return std::nullopt;
    link.stream = new SocketStream(std::move(socket));
    return link;
}

}  // namespace host
