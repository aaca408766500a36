// The address at which hosts connect: a TCP port or a Unix socket.
#pragma once

#include <memory>
#include <string>

#include "posix/UniqueFd.h"

namespace remote {

class Listener {
  public:
    // `address`: "HOST:PORT" ("[HOST]:PORT" for IPv6; PORT 0 takes a free one) or "unix:PATH".
    // Null: `error` says why. A Unix socket without a listener behind it is replaced; ours is for
    // this user only.
    static std::unique_ptr<Listener> Open(const std::string& address, std::string& error);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int Fd() const { return socket_.Get(); }
    const std::string& Name() const { return name_; }  // the address that is really bound
    bool Private() const { return private_; }          // unreachable from other machines

    posix::UniqueFd Accept();  // non-blocking; none: the host has gone again

  private:
    Listener() = default;
    static std::unique_ptr<Listener> OpenUnix(const std::string& path, std::string& error);
    static std::unique_ptr<Listener> OpenTcp(const std::string& host, const std::string& port,
                                             std::string& error);

    posix::UniqueFd socket_;
    std::string name_;
    bool private_ = true;
    std::string unlink_path_;
};

}  // namespace remote
