// What the peer of a stream says first. A remote side speaks first, so that whoever else is there
// by mistake is known before the module gets the stream.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "host/Connect.h"

namespace host {

struct Greeting {
    enum class Kind {
        RemoteSide,  // the beginning of a channel message
        Busy,        // the text of a remote side that serves another host
        Other,       // what no channel message begins with
        Silence,     // nothing in time
        Ended,       // the stream ended, or failed, without a byte
        Stopped,
    };
    Kind kind;
    std::string text;      // Busy, Other: the first line; Ended: the failure, if it was one
    std::size_t size = 0;  // RemoteSide: of the whole message
};

// Waits at most `patience` for the first bytes that come to `socket`, and leaves all of them there.
// Stopped soon after `stop` becomes readable (see Wait.h).
Greeting AwaitGreeting(int socket, int stop, std::chrono::milliseconds patience);

// For the user: what is wrong with a peer that is Busy, Other or Silence, and what to try.
std::string Explain(const Greeting& greeting, const Target& target);

}  // namespace host
