#include "posix/Listener.h"

#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>

#include "posix/Error.h"

namespace posix {
namespace {

constexpr int kBacklog = 128;  // those that wait their turn, a burst of them included
constexpr timespec kAcceptPause{1, 0};

bool is_unix(const Address& address) {
    return address.kind == Address::Kind::Unix;
}

// A socket file that nobody listens at was left behind by a program that was killed.
void remove_stale(const std::string& path, const SocketAddress& place) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return;
    const UniqueFd probe = StartConnect(place, kPeerLost);
    if (!probe && errno == ECONNREFUSED) unlink(path.c_str());
}

}  // namespace

std::unique_ptr<Listener> Listener::Open(const Address& address, std::string& error) {
    const auto places = Resolve(address, -1, error);
    if (places.empty()) return nullptr;
    if (is_unix(address)) remove_stale(address.name, places.front());
    std::unique_ptr<Listener> listener(new Listener);
    if (listener->Bind(address, places.front())) return listener;
    error = ErrorText(errno);
    return nullptr;
}

bool Listener::Bind(const Address& address, const SocketAddress& place) {
    socket_ =
        UniqueFd(socket(place.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    pause_ = UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    const int yes = 1;  // a restart need not wait for old connections to time out
    setsockopt(Fd(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (bind(Fd(), place.Get(), place.size) != 0) return false;
    bound_ = address;
    if (is_unix(address)) {
        // Nobody can connect before listen, so the mode is in force for everybody.
        const char* path = address.name.c_str();
        if (lstat(path, &file_) != 0 || chmod(path, S_IRUSR | S_IWUSR) != 0) return false;
    } else {
        SocketAddress bound;
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

UniqueFd Listener::Accept(std::string& error) {
    paused_ = false;
    UniqueFd peer(accept4(Fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (peer) {
        TuneTcp(peer.Get(), kPeerLost);
    } else if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) {
        error = "cannot accept a connection: " + ErrorText(errno);
        // Whoever came goes on waiting, so that the socket would be readable all the time.
        const itimerspec pause{{}, kAcceptPause};
        paused_ = timerfd_settime(pause_.Get(), 0, &pause, nullptr) == 0;
    }
    return peer;
}

}  // namespace posix
