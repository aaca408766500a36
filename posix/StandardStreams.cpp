#include "posix/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <mutex>
#include <system_error>

#include "posix/Wait.h"

namespace posix {

void ReserveStandardStreams() {
    int fd = STDIN_FILENO;
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = ::open("/dev/null", O_RDWR);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "/dev/null");
    ::close(fd);
}

void Tell(int stream, std::string_view line) {
    static std::mutex mutex;
    static bool stuck = false;  // guarded by `mutex`
    const std::lock_guard lock(mutex);
    stuck = WaitFor(stream, POLLOUT, -1, stuck ? 0 : 1000) != Wake::Ready;
    // A pipe that is writable takes so much.
    if (!stuck)
        Retry([&] { return ::write(stream, line.data(), line.substr(0, PIPE_BUF).size()); });
}

}  // namespace posix
