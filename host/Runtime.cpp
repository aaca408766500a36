#include "host/Runtime.h"

#include <cstdio>
#include <ctime>

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

}  // namespace

void Runtime::Show(const std::string& level, std::string_view text) const {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char time[sizeof "HH:MM:SS"];
    std::strftime(time, sizeof time, "%H:%M:%S", &local);
    char milliseconds[sizeof ".mmm"];
    std::snprintf(milliseconds, sizeof milliseconds, ".%03u",
                  static_cast<unsigned>(now.tv_nsec / 1'000'000) % 1000U);
    write_(std::string(time) + milliseconds + ' ' + level + ' ' + printable(text) + '\n');
}

void Runtime::Say(const std::string& text) const {
    Show("host", text);
}

void Runtime::Log(int level, const char* text) {
    if (shown_levels_.count(level) != 0) Show(std::to_string(level), text);
}

}  // namespace host
