#include "remote/bridge/UsbipServer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "posix/Error.h"
#include "posix/Wait.h"
#include "remote/io/InputBuffer.h"
#include "remote/io/Log.h"

namespace remote {
namespace {

// False: the time is up, or the program is to stop.
bool wait_for(int fd, short events, int stop, Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    const auto timeout = std::max<std::int64_t>(left.count(), 0);
    return posix::WaitFor(fd, events, stop, static_cast<int>(timeout)) == posix::Wake::Ready;
}

// Reads the list from a new connection. Returns why it cannot, or nothing.
std::string read_list(int fd, int stop, Clock::time_point deadline, ListReader& reader) {
    std::string too_late = "the server does not answer";
    if (!wait_for(fd, POLLOUT, stop, deadline)) return too_late;
    if (const int error = posix::ConnectError(fd)) return ErrorText(error);
    const Bytes request = EncodeListRequest();  // small enough for the empty socket to take it
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) return ErrorText(errno);
    InputBuffer input;
    while (!reader.Done()) {
        if (!wait_for(fd, POLLIN, stop, deadline)) return too_late;
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

std::optional<UsbipServer> UsbipServer::Resolve(const posix::Address& address, int stop,
                                                std::string& error) {
    UsbipServer server;
    server.name_ = posix::Describe(address);
    server.addresses_ = posix::Resolve(address, stop, error);
    return server.addresses_.empty() ? std::nullopt : std::optional(std::move(server));
}

std::optional<std::vector<ServedDevice>> UsbipServer::List(int stop, std::string& error) const {
    const auto deadline = Clock::now() + kServerTimeout;
    for (std::size_t which = 0; which < Addresses(); ++which) {
        const posix::UniqueFd fd = Connect(which);
        ListReader reader;
        error = fd ? read_list(fd.Get(), stop, deadline, reader) : ErrorText(errno);
        if (error.empty()) return reader.Devices();
    }
    error = name_ + ": " + error;
    return std::nullopt;
}

}  // namespace remote
