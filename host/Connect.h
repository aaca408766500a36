// From what the user names to a connected stream.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "host/Child.h"
#include "host/SocketStream.h"

namespace host {

struct Target {
    enum class Kind { Tcp, Unix, Command };
    Kind kind = Kind::Tcp;
    std::string name;  // host name or address, path of the socket, or command line
    std::string port;  // Tcp only; decimal
};

// "HOST:PORT", "[IPV6]:PORT" or "unix:PATH". Returns what is wrong, or an empty text.
std::string ParseAddress(const std::string& text, Target& target);

std::string Describe(const Target& target);

struct Link {
    CRefObj<SocketStream> stream;
    std::unique_ptr<Child> child;  // the command behind the stream; null for a socket
};

// Connects or starts the command. Every address of a host name is tried, each for a bounded time.
// Empty with an `error` on failure; empty soon after `stop` becomes readable (see Wait.h).
std::optional<Link> Open(const Target& target, int stop, std::string& error);

}  // namespace host
