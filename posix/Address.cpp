#include "posix/Address.h"

#include <sys/un.h>

#include <charconv>
#include <string_view>

namespace posix {
namespace {

constexpr std::string_view kUnixPrefix = "unix:";

std::optional<std::uint16_t> parse_port(std::string_view text, std::uint16_t lowest) {
    std::uint16_t port = 0;
    const char* end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, port);
    if (failure != std::errc() || stop != end || port < lowest) return std::nullopt;
    return port;
}

// `port` holds what there is without a port, if that is allowed.
std::optional<Address> parse_tcp(const std::string& text, std::uint16_t lowest,
                                 std::optional<std::uint16_t> port, std::string& error) {
    const bool bracketed = text.starts_with('[');
    const std::size_t name_end = text.find(bracketed ? ']' : ':');
    const std::string name = text.substr(bracketed ? 1 : 0, name_end - (bracketed ? 1 : 0));
    const std::string rest =
        name_end == std::string::npos ? "" : text.substr(name_end + (bracketed ? 1 : 0));
    const bool closed = !bracketed || name_end != std::string::npos;
    const bool has_colon = name.find(':') != std::string::npos;
    if (!closed || has_colon != bracketed || (!rest.empty() && rest.rfind(':') != 0)) {
        error = "an IPv6 address stands in brackets: [::1]:9000";
    } else if (rest.empty() && !port) {
        error = "expected HOST:PORT or unix:PATH";
    } else if (name.empty()) {
        error = "the host is missing";
    } else {
        if (!rest.empty()) port = parse_port(std::string_view(rest).substr(1), lowest);
        if (port) return Address{Address::Kind::Tcp, name, *port};
        error = "the port is a number from " + std::to_string(lowest) + " to 65535";
    }
    return std::nullopt;
}

}  // namespace

std::optional<Address> ParseAddress(const std::string& text, AddressUse use, std::string& error) {
    if (!text.starts_with(kUnixPrefix)) {
        return parse_tcp(text, use == AddressUse::Listen ? 0 : 1, std::nullopt, error);
    }
    Address address{Address::Kind::Unix, text.substr(kUnixPrefix.size()), 0};
    constexpr std::size_t kLongest = sizeof sockaddr_un::sun_path - 1;
    if (!address.name.empty() && address.name.size() <= kLongest) return address;
    error = address.name.empty()
                ? "the path after unix: is missing"
                : "the path of a Unix socket has at most " + std::to_string(kLongest) + " bytes";
    return std::nullopt;
}

std::optional<Address> ParseServer(const std::string& text, std::uint16_t default_port,
                                   std::string& error) {
    return parse_tcp(text, 1, default_port, error);
}

std::string Describe(const Address& address) {
    if (address.kind == Address::Kind::Unix) return std::string(kUnixPrefix) + address.name;
    const bool v6 = address.name.find(':') != std::string::npos;
    return (v6 ? '[' + address.name + ']' : address.name) + ':' + std::to_string(address.port);
}

}  // namespace posix
