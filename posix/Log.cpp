#include "posix/Log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "posix/StandardStreams.h"

namespace posix {
namespace {

enum class Reader { Anybody, Terminal, Journal };

Reader reader_of(int stream) {
    struct stat status {};
    const char* const journal = std::getenv("JOURNAL_STREAM");
    if (journal != nullptr && ::fstat(stream, &status) == 0 &&
        journal == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)) {
        return Reader::Journal;
    }
    const bool plain = ::isatty(stream) == 0 || std::getenv("NO_COLOR") != nullptr;
    return plain ? Reader::Anybody : Reader::Terminal;
}

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

std::string time_of_day() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char time[sizeof "HH:MM:SS"];
    std::strftime(time, sizeof time, "%H:%M:%S", &local);
    char milliseconds[sizeof ".mmm "];
    std::snprintf(milliseconds, sizeof milliseconds, ".%03u ",
                  static_cast<unsigned>(now.tv_nsec / 1'000'000) % 1000U);
    return std::string(time) + milliseconds;
}

// As syslog counts them.
std::string_view priority(Severity severity) {
    switch (severity) {
        case Severity::Failure:
            return "<3>";
        case Severity::Notice:
            return "<6>";
        default:
            return "<7>";
    }
}

}  // namespace

void Say(std::string_view who, Severity severity, std::string_view text) {
    static const Reader reader = reader_of(STDERR_FILENO);
    std::string line;
    if (reader == Reader::Journal) {
        line = priority(severity);
    } else {
        line = time_of_day() + std::string(who) + ": ";
    }
    const bool coloured = reader == Reader::Terminal && severity == Severity::Failure;
    line += coloured ? "\033[31m" + printable(text) + "\033[0m" : printable(text);
    Tell(STDERR_FILENO, line + '\n');
}

}  // namespace posix
