#include "posix/Notify.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "posix/UniqueFd.h"

namespace posix {

void Notify(const std::string& lines) {
    const char* const wanted = std::getenv("NOTIFY_SOCKET");
    const std::string_view path = wanted != nullptr ? wanted : "";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return;
    path.copy(address.sun_path, path.size());
    if (path.front() == '@') address.sun_path[0] = '\0';  // an abstract name
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ::sendto(socket.Get(), lines.data(), lines.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr*>(&address), size);
}

}  // namespace posix
