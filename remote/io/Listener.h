// The address at which hosts connect: a TCP port or a Unix socket.
#pragma once

#include <sys/stat.h>

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

    // To wait for: readable when Accept may have a host.
    int Fd() const { return paused_ ? pause_.Get() : socket_.Get(); }
    std::string Name() const { return posix::Describe(bound_); }  // of what is really bound
    bool Private() const { return private_; }                     // unreachable from other machines

    // Non-blocking. None: the host has gone again, or cannot be had and waits for a second attempt.
    posix::UniqueFd Accept();

  private:
    Listener() = default;
    // False: see errno.
    bool Bind(const posix::Address& address, const posix::SocketAddress& place);

    posix::UniqueFd socket_;
    posix::UniqueFd pause_;  // a timer
    bool paused_ = false;    // until it expires
    posix::Address bound_;   // without a name before it is
    struct stat file_ {};    // of a Unix socket
    bool private_ = true;
};

}  // namespace remote
