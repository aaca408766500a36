#include "posix/ControlServer.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "posix/Error.h"

namespace posix {
namespace {

constexpr std::size_t kMostClients = 8;
constexpr std::size_t kLongestRequest = 8192;
constexpr std::size_t kMostUntaken = std::size_t{1} << 20;  // of answers

}  // namespace

std::unique_ptr<ControlServer> ControlServer::Open(const std::string& path, std::string& error) {
    std::unique_ptr<ControlServer> server(new ControlServer);
    server->listener_ = Listener::Open({Address::Kind::Unix, path}, error);
    if (server->listener_) return server;
    error = "cannot open the control socket " + path + ": " + error;
    return nullptr;
}

void ControlServer::Watch(std::vector<pollfd>& fds) const {
    fds.push_back({listener_->Fd(), POLLIN, 0});
    for (const Connection& one : connections_) {
        const int events = POLLIN | (one.answer.empty() ? 0 : POLLOUT);
        fds.push_back({one.socket.Get(), static_cast<short>(events), 0});
    }
}

void ControlServer::OnEvents(std::span<const pollfd> fds, const Handler& handle) {
    std::size_t next = 1;
    for (Connection& one : connections_) {
        const short events = fds[next++].revents;
        if ((events & ~POLLOUT) != 0) Read(one, handle);
        if ((events & POLLOUT) != 0) Write(one);
    }
    if (fds.front().revents != 0) {
        std::string error;  // the client goes on waiting
        UniqueFd socket = listener_->Accept(error);
        if (socket && connections_.size() < kMostClients) {
            connections_.push_back({next_++, std::move(socket), {}, {}, false});
        }
    }
    connections_.remove_if([](const Connection& one) { return one.over; });
}

void ControlServer::Read(Connection& connection, const Handler& handle) {
    std::array<char, 4096> piece;
    const ssize_t size = ::recv(connection.socket.Get(), piece.data(), piece.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (size <= 0) {
        connection.over = true;
        return;
    }
    connection.request.append(piece.data(), static_cast<std::size_t>(size));
    for (std::size_t end = 0; (end = connection.request.find('\n')) != std::string::npos;) {
        const std::string request = connection.request.substr(0, end);
        connection.request.erase(0, end + 1);
        handle(connection.client, request);
    }
    if (connection.request.size() > kLongestRequest) connection.over = true;
}

void ControlServer::Write(Connection& connection) {
    const ssize_t size = ::send(connection.socket.Get(), connection.answer.data(),
                                connection.answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size > 0) {
        connection.answer.erase(0, static_cast<std::size_t>(size));
    } else if (errno != EAGAIN && errno != EINTR) {
        connection.over = true;
    }
    if (connection.answer.size() > kMostUntaken) connection.over = true;
}

bool ControlServer::Answer(Client client, std::string_view line) {
    const auto found = std::ranges::find(connections_, client, &Connection::client);
    if (found == connections_.end() || found->over) return false;
    found->answer += line;
    found->answer += '\n';
    Write(*found);
    return true;
}

}  // namespace posix
