// Asking a running program: the client's side of a control socket.
//
// A request is a line of JSON, an object whose "command" says what is wanted. The answer is any
// number of lines, each an object, and a last one: {"done":true}, or {"error":TEXT}.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace posix {

// Hands each line of the answer, without its end, to `on_line`, but for the last one. True: the
// answer was complete. False with an `error`: the program's, or nobody is there, or it leaves
// before that, or is silent for longer than `patience_ms` (-1: it may be). Ends soon after `stop`
// becomes readable (see Wait.h), with true.
bool Ask(const std::string& path, const std::string& request, int stop, int patience_ms,
         const std::function<void(std::string_view line)>& on_line, std::string& error);

// As most requests want it.
inline constexpr int kAskPatienceMs = 10'000;

}  // namespace posix
