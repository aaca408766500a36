// A server of USB/IP devices on the network.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "posix/Socket.h"
#include "remote/bridge/UsbipHandshake.h"

namespace remote {

// How long a server may take to accept a connection and to answer a request. A busy emulated one
// was seen to take 9 s for four imports at once. One whose machine has vanished, or that takes
// nothing of what waits for it, is noticed after the same time.
inline constexpr std::chrono::seconds kServerTimeout{15};

class UsbipServer {
  public:
    // Asks the resolver, which may take its time: for the start of the program only. Nothing:
    // `error` says why. Nothing soon after `stop` becomes readable (see Wait.h), as below.
    static std::optional<UsbipServer> Resolve(const posix::Address& address, int stop,
                                              std::string& error);

    const std::string& Name() const { return name_; }

    // The addresses that the name stands for, in the resolver's order of preference; one or more.
    std::size_t Addresses() const { return addresses_.size(); }

    // A non-blocking socket that is connecting to address number `which`. None: see errno.
    posix::UniqueFd Connect(std::size_t which) const {
        return posix::StartConnect(addresses_[which], kServerTimeout);
    }

    // Asks for the devices that can be imported. Blocks for at most kServerTimeout.
    // Nothing: `error` says why.
    std::optional<std::vector<ServedDevice>> List(int stop, std::string& error) const;

  private:
    std::string name_;
    std::vector<posix::SocketAddress> addresses_;
};

}  // namespace remote
