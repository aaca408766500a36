// The address at which hosts connect: a TCP port or a Unix socket.
#pragma once

#include <memory>
#include <string>

#include "posix/Socket.h"

namespace remote {

class Listener {
  public:
    // Null: `error` says why. A Unix socket without a listener behind it is replaced; ours is for
    // this user only.
    static std::unique_ptr<Listener> Open(const posix::Address& address, std::string& error);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int Fd() const { return socket_.Get(); }
    std::string Name() const { return posix::Describe(bound_); }  // of what is really bound
    bool Private() const { return private_; }                     // unreachable from other machines

    posix::UniqueFd Accept();  // non-blocking; none: the host has gone again

  private:
    Listener() = default;
    // False: see errno.
    bool Bind(const posix::Address& address, const posix::SocketAddress& place);

    posix::UniqueFd socket_;
    posix::Address bound_;  // without a name before it is
    bool private_ = true;
};

}  // namespace remote
