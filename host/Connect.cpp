#include "host/Connect.h"

#include "posix/Socket.h"

namespace host {

std::string Describe(const Target& target) {
    return target.address ? posix::Describe(*target.address) : "command \"" + target.command + '"';
}

std::optional<Link> Open(const Target& target, int stop, std::string& error) {
    Link link;
    if (target.address) {
        link.socket = posix::Connect(*target.address, stop, error);
    } else {
        link.child = Child::Start(target.command, link.socket, error);
    }
    if (!link.socket) return std::nullopt;
    return link;
}

}  // namespace host
