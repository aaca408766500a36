// Standard input, output and error, which may be closed, or lead to somebody who does not read.
#pragma once

#include <string_view>

namespace posix {

// To be called first of all: gives those that are closed to /dev/null. What the program opens would
// take their places otherwise, and what is said to the user be written into it.
void ReserveStandardStreams();

// Writes a line in one piece, cut at 4 KiB. It is lost when nobody makes room for it within a
// second, and at once as long as that goes on. Any thread.
void Tell(int stream, std::string_view line);

}  // namespace posix
