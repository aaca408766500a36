// A server of USB/IP devices on the network.
#pragma once

#include <netdb.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "posix/UniqueFd.h"
#include "remote/bridge/UsbipHandshake.h"

namespace remote {

// How long a server may take to accept a connection and to answer a request. A busy emulated one
// was seen to take 9 s for four imports at once.
inline constexpr std::chrono::seconds kServerTimeout{15};

class UsbipServer {
  public:
    // `name`: "HOST[:PORT]", "[HOST]:PORT" for IPv6. Asks the resolver, which may take its time:
    // for the start of the program only. Nothing: `error` says why.
    static std::optional<UsbipServer> Resolve(const std::string& name, std::string& error);

    const std::string& Name() const { return name_; }

    // The addresses that the name stands for, in the resolver's order of preference; one or more.
    std::size_t Addresses() const { return addresses_.size(); }

    // A non-blocking socket that is connecting to address number `which`. None: see errno.
    posix::UniqueFd Connect(std::size_t which) const;

    // Asks for the devices that can be imported. Blocks for at most kServerTimeout.
    // Nothing: `error` says why.
    std::optional<std::vector<ServedDevice>> List(std::string& error) const;

  private:
    std::string name_;
    std::shared_ptr<addrinfo> owner_;  // of the addresses
    std::vector<const addrinfo*> addresses_;
};

// Why a connection did not come about once its socket is writable; 0: it did.
int ConnectError(int fd);

}  // namespace remote
