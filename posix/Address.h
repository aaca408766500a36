// Where a stream leads: a TCP port or a Unix socket, as users write it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace posix {

struct Address {
    enum class Kind { Tcp, Unix };
    Kind kind = Kind::Tcp;
    std::string name;  // host name or address, without brackets; or the path of the socket
    std::uint16_t port = 0;
};

// Port 0 is for listening only: the kernel chooses a free one.
enum class AddressUse { Connect, Listen };

// "HOST:PORT", "[IPV6]:PORT" or "unix:PATH".
std::optional<Address> ParseAddress(const std::string& text, AddressUse use, std::string& error);

// "HOST[:PORT]" or "[IPV6][:PORT]", to connect to; without a port it is `default_port`.
std::optional<Address> ParseServer(const std::string& text, std::uint16_t default_port,
                                   std::string& error);

std::string Describe(const Address& address);  // as ParseAddress reads it

}  // namespace posix
