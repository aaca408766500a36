#include "host/Connect.h"

#include "posix/Socket.h"

namespace host {

std::string Describe(const Target& target) {
    return target.address ? posix::Describe(*target.address) : "command \"" + target.command + '"';
}

std::optional<Link> Open(const Target& target, int stop, std::string& error) {
    Link link;
    posix::UniqueFd socket;
    if (target.address) {
        socket = posix::Connect(*target.address, stop, error);
    } else {
        link.child = Child::Start(target.command, socket, error);
    }
    if (!socket) return std::nullopt;
    link.stream = new SocketStream(socket.Release());
    return link;
}

}  // namespace host
