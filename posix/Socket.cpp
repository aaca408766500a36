#include "posix/Socket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

#include "posix/Error.h"
#include "posix/Wait.h"

namespace posix {
namespace {

constexpr int kResolveTimeoutMs = 30'000;
constexpr int kConnectTimeoutMs = 10'000;
constexpr int kFullPauseMs = 50;
constexpr int kLongMessage = 1 << 20;  // of a disk at super speed

// One name lookup. getaddrinfo cannot be interrupted, so it runs on a detached thread that shares
// the ownership of all it touches and may be left behind when the program stops.
struct Lookup {
    explicit Lookup(const Address& wanted)
        : name(wanted.name), port(std::to_string(wanted.port)), done(MakeEvent()) {}
    Lookup(const Lookup&) = delete;
    Lookup& operator=(const Lookup&) = delete;
    ~Lookup() {
        if (found != nullptr) ::freeaddrinfo(found);
    }

    void Run() {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = AI_NUMERICSERV;
        status = ::getaddrinfo(name.c_str(), port.c_str(), &hints, &found);
        finished = true;
        ::eventfd_write(done.Get(), 1);
    }

    const std::string name;
    const std::string port;
    const UniqueFd done;
    std::atomic<bool> finished{false};  // the two below belong to the thread until this is set
    int status = 0;
    addrinfo* found = nullptr;
};

std::vector<SocketAddress> look_up(const Address& address, int stop, std::string& error) {
    const auto lookup = std::make_shared<Lookup>(address);
    std::thread([lookup] { lookup->Run(); }).detach();
    WaitFor(lookup->done.Get(), POLLIN, stop, kResolveTimeoutMs);
    std::vector<SocketAddress> result;
    if (!lookup->finished || lookup->status != 0) {
        error = "cannot resolve " + address.name + ": " +
                (lookup->finished ? ::gai_strerror(lookup->status) : "no answer");
        return result;
    }
    for (const addrinfo* one = lookup->found; one != nullptr; one = one->ai_next) {
        SocketAddress& place = result.emplace_back();
        place.size = one->ai_addrlen;
        std::memcpy(&place.storage, one->ai_addr, place.size);
    }
    return result;
}

UniqueFd connect_to(const SocketAddress& place, int stop, std::string& error) {
    UniqueFd socket = StartConnect(place, kPeerLost);
    // EAGAIN: a Unix socket at which so many wait that no more may. There is no event to wait for.
    for (int waited = 0; !socket && errno == EAGAIN && waited < kConnectTimeoutMs;
         waited += kFullPauseMs) {
        if (WaitFor(-1, 0, stop, kFullPauseMs) == Wake::Stopped) break;
        socket = StartConnect(place, kPeerLost);
    }
    int failure = socket ? 0 : errno;
    if (socket) {
        const bool ready = WaitFor(socket.Get(), POLLOUT, stop, kConnectTimeoutMs) == Wake::Ready;
        failure = ready ? ConnectError(socket.Get()) : ETIMEDOUT;
    }
    if (failure == 0 && ::fcntl(socket.Get(), F_SETFL, 0) != 0) failure = errno;
    if (failure == 0) return socket;
    error = ErrorText(failure);
    return {};
}

}  // namespace

bool SocketAddress::IsLoopback() const {
    if (storage.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(storage);
        return ntohl(v4.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    }
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(storage).sin6_addr);
}

Address SocketAddress::ToAddress() const {
    std::array<char, NI_MAXHOST> name{};
    ::getnameinfo(Get(), size, name.data(), name.size(), nullptr, 0, NI_NUMERICHOST);
    // The port stands at the same place in both families.
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(storage);
    return {Address::Kind::Tcp, name.data(), ntohs(v4.sin_port)};
}

std::string DescribePeer(int socket) {
    SocketAddress peer;
    if (::getpeername(socket, peer.Get(), &peer.size) != 0) return ErrorText(errno);
    if (peer.storage.ss_family != AF_UNIX) return Describe(peer.ToAddress());
    ucred process{};
    socklen_t size = sizeof process;
    ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &process, &size);
    return "process " + std::to_string(process.pid) + " of user " + std::to_string(process.uid);
}

std::vector<SocketAddress> Resolve(const Address& address, int stop, std::string& error) {
    if (address.kind == Address::Kind::Tcp) return look_up(address, stop, error);
    sockaddr_un path{};
    path.sun_family = AF_UNIX;
    address.name.copy(path.sun_path, sizeof path.sun_path - 1);  // ParseAddress checked the length
    SocketAddress place;
    place.size = sizeof path;
    std::memcpy(&place.storage, &path, sizeof path);
    return {place};
}

void TuneTcp(int socket, std::chrono::seconds lost_after) {
    const auto set = [socket](int level, int name, int value) {
        ::setsockopt(socket, level, name, &value, sizeof value);
    };
    // After half of the time three probes, each a third of the other half.
    constexpr int kProbes = 3;
    const int seconds = static_cast<int>(lost_after.count());
    const int interval = seconds / (2 * kProbes);
    set(IPPROTO_TCP, TCP_NODELAY, 1);
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, seconds - kProbes * interval);
    set(IPPROTO_TCP, TCP_KEEPINTVL, interval);
    set(IPPROTO_TCP, TCP_KEEPCNT, kProbes);
    set(IPPROTO_TCP, TCP_USER_TIMEOUT, seconds * 1000);  // keep-alive watches idle ones only
    // A window that is smaller than a message costs it another round trip. Who is to wait for so
    // much gets the room for it, which stays; unlike SO_RCVBUF, this asks for no privilege and lets
    // the window go on growing by itself.
    set(SOL_SOCKET, SO_RCVLOWAT, kLongMessage);
    set(SOL_SOCKET, SO_RCVLOWAT, 1);
}

UniqueFd StartConnect(const SocketAddress& to, std::chrono::seconds lost_after) {
    UniqueFd socket(::socket(to.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket) return socket;
    TuneTcp(socket.Get(), lost_after);
    if (::connect(socket.Get(), to.Get(), to.size) == 0 || errno == EINPROGRESS) return socket;
    const int failure = errno;
    socket = UniqueFd();
    errno = failure;
    return socket;
}

int ConnectError(int socket) {
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

UniqueFd Connect(const Address& address, int stop, std::string& error) {
    for (const SocketAddress& place : Resolve(address, stop, error)) {
        UniqueFd socket = connect_to(place, stop, error);
        if (socket || IsStopped(stop)) return socket;
    }
    return {};
}

}  // namespace posix
