// The two ways to offer the microphone to others. Both serve until the process is ended, one client
// at a time.
#pragma once

#include <string>

#include "posix/Listener.h"
#include "vm/microphone/Lies.h"

namespace remote {

// As the only device of a server of the Linux USB/IP protocol.
void ServeUsbip(posix::Listener& listener, const Lies& lies);

// As the first device of a remote side, that speaks the channel. `disk`: an image, for a second
// device, which is honest; none when it is empty.
void ServeChannel(posix::Listener& listener, const Lies& lies, const std::string& disk);

}  // namespace remote
