#include "host/Runtime.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string_view>

namespace host {
namespace {

// Some texts are the remote side's (names of devices): control characters must neither reach the
// terminal nor forge a line of their own.
std::string printable(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (c >= ' ' && c <= '~') {
            result += c;
            continue;
        }
        char escaped[sizeof "\\xNN"];
        std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned char>(c));
        result += escaped;
    }
    return result;
}

// In one piece, cut at 4 KiB. A line is lost when nobody makes room for it within a second, and at
// once as long as that goes on: whoever does not read the log must not stop the module.
void write_line(const std::string& line) {
    static std::mutex mutex;
    static bool stuck = false;  // guarded by `mutex`
    const std::lock_guard lock(mutex);
    pollfd log{STDERR_FILENO, POLLOUT, 0};
    stuck = ::poll(&log, 1, stuck ? 0 : 1000) != 1;
    if (stuck) return;
    // A pipe that is writable takes so much. There is nobody to tell if it fails.
    const ssize_t count =
        ::write(STDERR_FILENO, line.data(), std::min<std::size_t>(line.size(), PIPE_BUF));
    static_cast<void>(count);
}

void show(const std::string& level, std::string_view text) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char time[sizeof "HH:MM:SS"];
    std::strftime(time, sizeof time, "%H:%M:%S", &local);
    char milliseconds[sizeof ".mmm"];
    std::snprintf(milliseconds, sizeof milliseconds, ".%03u",
                  static_cast<unsigned>(now.tv_nsec / 1'000'000) % 1000U);
    write_line(std::string(time) + milliseconds + ' ' + level + ' ' + printable(text) + '\n');
}

}  // namespace

void Runtime::Say(const std::string& text) const {
    show("host", text);
}

void Runtime::Log(int level, const char* text) {
    if (shown_levels_.count(level) != 0) show(std::to_string(level), text);
}

}  // namespace host
