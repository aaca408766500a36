// Stream sockets: from an address to a connection.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <string>
#include <vector>

#include "posix/Address.h"
#include "posix/UniqueFd.h"

namespace posix {

// How long the peer of a stream may be silent, or leave unacknowledged what we sent, before the
// connection counts as lost. The kernel alone would take hours, or never notice.
inline constexpr std::chrono::seconds kPeerLost{30};

// One place that an address stands for.
struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t size = sizeof storage;

    sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    bool IsLoopback() const;    // of TCP
    Address ToAddress() const;  // of TCP, with the numeric address for a name
};

// Who is at the other end, for the user: an address, or a process at a Unix socket.
std::string DescribePeer(int socket);

// The places that `address` stands for, in the resolver's order of preference. Empty with an
// `error`, at the latest after 30 s and soon after `stop` becomes readable (see Wait.h).
std::vector<SocketAddress> Resolve(const Address& address, int stop, std::string& error);

// What every TCP connection has, and other sockets ignore: small messages leave at once, long ones
// arrive in one go, and a peer that has vanished is noticed after `lost_after`.
void TuneTcp(int socket, std::chrono::seconds lost_after);

// A non-blocking socket that is connecting. None: see errno.
UniqueFd StartConnect(const SocketAddress& to, std::chrono::seconds lost_after);

// Why a connection did not come about once its socket is writable, as errno; 0: it did.
int ConnectError(int socket);

// A connected, blocking socket. Every place that the address stands for is tried, each for 10 s at
// most. None with an `error`; none soon after `stop` becomes readable.
UniqueFd Connect(const Address& address, int stop, std::string& error);

}  // namespace posix
