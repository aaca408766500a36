// Subcommands that ask a host which runs already, over its control socket.
#pragma once

#include <cstdint>
#include <string>

namespace host {

struct Question {
    std::string command;  // as in the request; empty: none, this is a host itself
    std::string control;  // path of the socket
    std::uint32_t device = 0;
    std::string file;  // see ParseCapture
    bool live = false;
    bool json = false;
};

// Shows the answer on standard output. Returns the exit status.
int Ask(const Question& question, int stop);

}  // namespace host
