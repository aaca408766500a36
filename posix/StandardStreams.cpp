#include "posix/StandardStreams.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <mutex>
#include <set>
#include <string>
#include <system_error>

#include "posix/Wait.h"

namespace posix {
namespace {

// Writes what there is room for. That a terminal is writable does not say how much it takes, and
// the room in a pipe may be gone by now, so the write must not wait; but others share the open
// file behind `stream`, for whom it must. None of this holds for files, whose place is shared, too.
void write_now(int stream, std::string_view line) {
    struct stat status {};
    UniqueFd own;
    if (::fstat(stream, &status) == 0 && !S_ISREG(status.st_mode)) {
        const std::string path = "/proc/self/fd/" + std::to_string(stream);
        own = UniqueFd(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    }
    Retry([&] { return ::write(own ? own.Get() : stream, line.data(), line.size()); });
}

}  // namespace

void ReserveStandardStreams() {
    int fd = STDIN_FILENO;
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = ::open("/dev/null", O_RDWR);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "/dev/null");
    ::close(fd);
}

void Tell(int stream, std::string_view line) {
    static std::mutex mutex;
    static std::set<int> stuck;  // streams; guarded by `mutex`
    const std::lock_guard lock(mutex);
    if (WaitFor(stream, POLLOUT, -1, stuck.contains(stream) ? 0 : 1000) == Wake::Ready) {
        stuck.erase(stream);
        write_now(stream, line.substr(0, PIPE_BUF));  // a pipe that is writable takes so much
    } else {
        stuck.insert(stream);
    }
}

}  // namespace posix
