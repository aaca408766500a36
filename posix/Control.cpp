#include "posix/Control.h"

#include <sys/socket.h>

#include <array>

#include "posix/Socket.h"
#include "posix/Wait.h"

namespace posix {

bool Ask(const std::string& path, const std::string& request, int stop, int patience_ms,
         const std::function<bool(std::string_view line)>& on_line, std::string& error) {
    const Address address{Address::Kind::Unix, path};
    const UniqueFd socket = Connect(address, stop, error);
    if (!socket) {
        error = "nobody answers at " + path + ": " + error;
        return IsStopped(stop);
    }
    const std::string line = request + '\n';
    if (Retry([&] { return ::send(socket.Get(), line.data(), line.size(), MSG_NOSIGNAL); }) !=
        static_cast<ssize_t>(line.size())) {
        error = "it does not take the request";
        return false;
    }
    std::string received;
    for (;;) {
        const Wake wake = WaitFor(socket.Get(), POLLIN, stop, patience_ms);
        if (wake == Wake::Stopped) return true;
        std::array<char, 4096> piece;
        const ssize_t size = wake == Wake::TimedOut ? 0 : Retry([&] {
            return ::recv(socket.Get(), piece.data(), piece.size(), 0);
        });
        if (size <= 0) {
            error = wake == Wake::TimedOut ? "it does not answer" : "it has gone";
            return false;
        }
        received.append(piece.data(), static_cast<std::size_t>(size));
        for (std::size_t end = 0; (end = received.find('\n')) != std::string::npos;) {
            const std::string next = received.substr(0, end);
            received.erase(0, end + 1);
            if (!on_line(next)) return true;
        }
    }
}

}  // namespace posix
