// Stands between the host and the command of --exec, as a process of its own, and leaves nothing of
// the command behind, however either of them ends.
#pragma once

namespace host {

// Runs `/bin/sh -c COMMAND` with `stream` for its input and output until it ends, or the other end
// of `control` is shut down or closed, as a SIGKILL of the host does. In the second case the
// command has a moment to end by itself. What is left of it then, children of children included, is
// terminated and at last killed.
//
// Sends two ints over `control`: the shell's process id at once, and its status, as from waitpid,
// when nothing is left. For a process that was just forked, whose other threads are gone: makes
// only calls that are safe there. Closes every descriptor of the process but `control`.
void Keep(const char* command, int stream, int control);

}  // namespace host
