// Lines for the user, on standard error: one shape for all programs.
//
//     12:29:17.042 xj-usbip-host: connected to 127.0.0.1:9000
//
// Under a journal, which has times of its own, a line has its priority in place of the time. On a
// terminal failures stand out.
#pragma once

#include <string_view>

namespace posix {

enum class Severity { Failure, Notice, Detail };

// Writes one line in one piece (see Tell). Control characters in `text`, some of which is a peer's,
// neither reach the terminal nor make a line of their own. Any thread.
void Say(std::string_view who, Severity severity, std::string_view text);

}  // namespace posix
