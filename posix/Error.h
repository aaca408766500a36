// Failures. What can fail returns nothing (an empty optional, a null pointer, no descriptor) and
// says why in its last parameter, `error`, a text for the user.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace posix {

// The text of errno value `error`. Any thread.
inline std::string ErrorText(int error) {
    return std::generic_category().message(error);
}

// Makes a system call again while a signal interrupts it.
template <typename SystemCall>
auto Retry(SystemCall call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

}  // namespace posix
