#include "remote/io/Listener.h"

#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>

#include "remote/io/Log.h"

namespace remote {
namespace {

constexpr int kBacklog = 128;  // hosts that wait their turn, a burst of them included
constexpr timespec kAcceptPause{1, 0};

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
    pause_ = posix::UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    const int yes = 1;  // a restart need not wait for old connections to time out
    setsockopt(Fd(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (bind(Fd(), place.Get(), place.size) != 0) return false;
    bound_ = address;
    if (is_unix(address)) {
        // Nobody can connect before listen, so the mode is in force for everybody.
        const char* path = address.name.c_str();
        if (lstat(path, &file_) != 0 || chmod(path, S_IRUSR | S_IWUSR) != 0) return false;
    } else {
        posix::SocketAddress bound;
        if (getsockname(Fd(), bound.Get(), &bound.size) != 0) return false;
        bound_ = bound.ToAddress();
        private_ = bound.IsLoopback();
    }
    return listen(Fd(), kBacklog) == 0;
}

Listener::~Listener() {
    // Somebody may have put another file in the place of ours.
    struct stat now {};
    const char* path = bound_.name.c_str();
    if (lstat(path, &now) == 0 && now.st_dev == file_.st_dev && now.st_ino == file_.st_ino) {
        unlink(path);
    }
}

posix::UniqueFd Listener::Accept() {
    paused_ = false;
    posix::UniqueFd host(accept4(Fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (host) {
        posix::TuneTcp(host.Get(), posix::kPeerLost);
    } else if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) {
        Log("cannot accept a connection: %s", ErrorText(errno).c_str());
        // The host goes on waiting, so that the socket would be readable all the time.
        const itimerspec pause{{}, kAcceptPause};
        paused_ = timerfd_settime(pause_.Get(), 0, &pause, nullptr) == 0;
    }
    return host;
}

}  // namespace remote
