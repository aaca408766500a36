// Log lines on standard error.
#pragma once

#include "posix/Error.h"

namespace remote {

// Writes one line (without its newline in `format`) in one piece, cut at 1 KiB.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

using posix::ErrorText;

}  // namespace remote
