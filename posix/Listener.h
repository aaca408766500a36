// An address at which others connect: a TCP port or a Unix socket.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

#include "posix/Socket.h"

namespace posix {

class Listener {
  public:
    // Null: `error` says why. A Unix socket without a listener behind it is replaced; ours is for
    // this user only.
    static std::unique_ptr<Listener> Open(const Address& address, std::string& error);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // To wait for: readable when Accept may have somebody.
    int Fd() const { return paused_ ? pause_.Get() : socket_.Get(); }
    std::string Name() const { return Describe(bound_); }  // of what is really bound
    bool Private() const { return private_; }              // unreachable from other machines

    // Non-blocking. None: whoever came has gone again; or with an `error`, cannot be had and waits
    // for a second attempt.
    UniqueFd Accept(std::string& error);

  private:
    Listener() = default;
    // False: see errno.
    bool Bind(const Address& address, const SocketAddress& place);

    UniqueFd socket_;
    UniqueFd pause_;       // a timer
    bool paused_ = false;  // until it expires
    Address bound_;        // without a name before it is
    struct stat file_ {};  // of a Unix socket
    bool private_ = true;
};

}  // namespace posix
