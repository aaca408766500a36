#include "remote/io/Listener.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "remote/io/Log.h"

namespace remote {
namespace {

constexpr int kBacklog = 4;  // hosts that wait their turn

bool is_unix(const posix::Address& address) {
    return address.kind == posix::Address::Kind::Unix;
}

// A socket file that nobody listens at was left behind by a program that was killed.
void remove_stale(const std::string& path, const posix::SocketAddress& place) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return;
    const posix::UniqueFd probe = posix::StartConnect(place, posix::kPeerLost);
    if (!probe && errno == ECONNREFUSED) unlink(path.c_str());
}

}  // namespace

std::unique_ptr<Listener> Listener::Open(const posix::Address& address, std::string& error) {
    const auto places = posix::Resolve(address, -1, error);
    if (places.empty()) return nullptr;
    if (is_unix(address)) remove_stale(address.name, places.front());
    std::unique_ptr<Listener> listener(new Listener);
    if (listener->Bind(address, places.front())) return listener;
    error = ErrorText(errno);
    return nullptr;
}

bool Listener::Bind(const posix::Address& address, const posix::SocketAddress& place) {
    socket_ = posix::UniqueFd(
        socket(place.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int yes = 1;  // a restart need not wait for old connections to time out
    setsockopt(Fd(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (bind(Fd(), place.Get(), place.size) != 0) return false;
    bound_ = address;
    if (is_unix(address)) {
        // Nobody can connect before listen, so the mode is in force for everybody.
        if (chmod(address.name.c_str(), S_IRUSR | S_IWUSR) != 0) return false;
    } else {
        posix::SocketAddress bound;
        if (getsockname(Fd(), bound.Get(), &bound.size) != 0) return false;
        bound_ = bound.ToAddress();
        private_ = bound.IsLoopback();
    }
    return listen(Fd(), kBacklog) == 0;
}

Listener::~Listener() {
    if (is_unix(bound_)) unlink(bound_.name.c_str());
}

posix::UniqueFd Listener::Accept() {
    posix::UniqueFd host(accept4(Fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (host) {
        posix::TuneTcp(host.Get(), posix::kPeerLost);
    } else if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) {
        Log("cannot accept a connection: %s", ErrorText(errno).c_str());
    }
    return host;
}

}  // namespace remote
