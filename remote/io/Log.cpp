#include "remote/io/Log.h"

#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>

#include "posix/StandardStreams.h"

namespace remote {

void Log(const char* format, ...) {
    std::array<char, 1024> line{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    posix::Tell(STDERR_FILENO, std::string("xj-usbip-remote: ") + line.data() + '\n');
}

}  // namespace remote
