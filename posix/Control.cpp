#include "posix/Control.h"

#include <sys/socket.h>

#include <array>
#include <nlohmann/json.hpp>
#include <optional>

#include "posix/Socket.h"
#include "posix/Wait.h"

namespace posix {
namespace {

// The error text of an answer's last line, or an empty one; nothing: it is not the last.
std::optional<std::string> end_of_answer(const std::string& line) {
    const auto json = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) return std::nullopt;
    const auto error = json.find("error");
    if (error != json.end()) return error->is_string() ? error->get<std::string>() : "an error";
    return json.contains("done") ? std::optional<std::string>("") : std::nullopt;
}

}  // namespace

bool Ask(const std::string& path, const std::string& request, int stop, int patience_ms,
         const std::function<void(std::string_view line)>& on_line, std::string& error) {
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
            if (const auto last = end_of_answer(next)) {
                error = *last;
                return error.empty();
            }
            on_line(next);
        }
    }
}

}  // namespace posix
