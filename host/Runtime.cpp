#include "host/Runtime.h"

#include <cstdio>
#include <ctime>
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
    const std::string line =
        std::string(time) + milliseconds + ' ' + level + ' ' + printable(text) + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

void Runtime::Say(const std::string& text) const {
    show("host", text);
}

void Runtime::Log(int level, const char* text) {
    if (shown_levels_.count(level) != 0) show(std::to_string(level), text);
}

}  // namespace host
