// Asking a running program: the client's side of a control socket.
//
// A request is a line of JSON, an object whose "command" says what is wanted. The answer is any
// number of lines, each an object, and a last one: {"done":true}, or {"error":TEXT}.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace posix {

// Hands each line of the answer, without its end, to `on_line`, until that returns false: the
// answer is complete. False with an `error`: nobody is there, or the program leaves before that, or
// is silent for longer than `patience_ms` (-1: it may be). Ends soon after `stop` becomes readable
// (see Wait.h), with true.
bool Ask(const std::string& path, const std::string& request, int stop, int patience_ms,
         const std::function<bool(std::string_view line)>& on_line, std::string& error);

}  // namespace posix
