// Subcommands that ask a remote side which runs already, over its control socket.
#pragma once

#include <cstdint>
#include <string>

namespace remote {

struct Question {
    std::string command;  // as in the request; empty: none, this is a remote side itself
    std::string control;  // path of the socket
    std::uint32_t device = 0;
    std::string disk;  // for "add", one of these; as on the command line
    std::string usbip;
    bool json = false;
};

// Shows the answer on standard output. Returns the exit status.
int Ask(const Question& question, int stop);

}  // namespace remote
