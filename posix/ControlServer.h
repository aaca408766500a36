// The program's side of a control socket: clients that ask, in a poll loop of the program's own.
// See Control.h for what passes.
#pragma once

#include <poll.h>

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "posix/Listener.h"
#include "posix/UniqueFd.h"

namespace posix {

// Used by one thread. A client that asks for too much at once, or does not take its answers, is
// dropped; it delays nobody.
class ControlServer {
  public:
    using Client = std::uint64_t;  // never the same again
    using Handler = std::function<void(Client client, std::string_view request)>;

    // A socket at `path`, for this user only. Null with an `error`.
    static std::unique_ptr<ControlServer> Open(const std::string& path, std::string& error);

    // Adds what is to be waited for.
    void Watch(std::vector<pollfd>& fds) const;
    // What has come of it: `fds` begins with what Watch has added. Requests go to `handle`, which
    // answers at once or later.
    void OnEvents(std::span<const pollfd> fds, const Handler& handle);

    // A line. False: the client has gone.
    bool Answer(Client client, std::string_view line);

  private:
    struct Connection {
        Client client;
        UniqueFd socket;
        std::string request;  // not yet complete
        std::string answer;   // not yet taken
        bool over = false;
    };

    ControlServer() = default;
    void Read(Connection& connection, const Handler& handle);
    static void Write(Connection& connection);

    std::unique_ptr<Listener> listener_;
    std::list<Connection> connections_;
    Client next_ = 1;
};

}  // namespace posix
