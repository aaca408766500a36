#include "remote/io/Log.h"

#include <array>
#include <cstdarg>
#include <cstdio>

#include "posix/Log.h"

namespace remote {

void Log(const char* format, ...) {
    std::array<char, 1024> line{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    posix::Say("xj-usbip-remote", posix::Severity::Notice, line.data());
}

}  // namespace remote
