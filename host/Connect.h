// From what the user names to a connected stream.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "host/Child.h"
#include "posix/Address.h"

namespace host {

// What is at the other end of the stream.
struct Target {
    std::optional<posix::Address> address;
    std::string command;  // when there is no address
};

std::string Describe(const Target& target);

struct Link {
    posix::UniqueFd socket;        // blocking
    std::unique_ptr<Child> child;  // the command behind the socket; null for a connection
};

// Connects or starts the command. Empty with an `error`; empty soon after `stop` becomes readable
// (see Wait.h).
std::optional<Link> Open(const Target& target, int stop, std::string& error);

}  // namespace host
