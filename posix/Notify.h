// What a service manager is told (systemd's sd_notify protocol).
#pragma once

#include <string>

namespace posix {

// Sends lines such as "READY=1" to the manager that has started this process, if it wants to know
// ($NOTIFY_SOCKET). Never waits. Any thread.
void Notify(const std::string& lines);

}  // namespace posix
