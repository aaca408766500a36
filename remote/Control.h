// The remote side's control socket, in the server's poll loop: what it answers.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "posix/ControlServer.h"

namespace remote {

class Server;

class Control {
  public:
    // `wait`: for added devices of USB/IP servers, as on the command line. Null with an `error`.
    static std::unique_ptr<Control> Open(const std::string& path, bool wait, std::string& error);

    void Watch(std::vector<pollfd>& fds) const { server_->Watch(fds); }
    // As in ControlServer; does what is asked to `devices`.
    void OnEvents(std::span<const pollfd> fds, Server& devices);

  private:
    Control() = default;
    void OnRequest(posix::ControlServer::Client client, std::string_view request, Server& devices);
    std::string Add(const std::string& disk, const std::string& usbip, Server& devices) const;

    std::unique_ptr<posix::ControlServer> server_;
    bool wait_ = false;
};

}  // namespace remote
