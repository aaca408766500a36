// Messages of the host: whole ones out of the byte stream, checked, inflated and decoded. Pure: no
// descriptor, no thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "remote/device/Command.h"
#include "remote/io/Bytes.h"
#include "remote/io/InputBuffer.h"
#include "wire/ChannelMessages.h"

namespace remote {

// Longest message accepted: the largest PDU, with the room by which zlib may lengthen data that
// does not compress (less than 1/2048).
inline constexpr std::size_t kMaxMessage = kForwardOverhead + kMaxRawSize + (kMaxRawSize >> 11);

// Cuts the byte stream into messages.
class MessageReader {
  public:
    // Where the stream's bytes go. What comes in ends the life of the last message.
    InputBuffer& Input() { return input_; }

    // The next whole message, from its outer header. Empty: more bytes are needed, or Error says
    // why there will be none.
    ByteView Next();
    const std::string& Error() const { return error_; }
    bool Empty() const { return input_.Unread().empty(); }  // at a message boundary

  private:
    InputBuffer input_;
    std::string error_;
};

struct Message {
    UsbipMessageType type{};    // kUsbipVersionRsp, kUsbipDevUnmap or kUsbipForward
    std::uint32_t version = 0;  // of a version response
    std::uint32_t devid = 0;    // of the other two
    Command command;            // of a forward; its bytes are the message's, or `inflated`
    std::unique_ptr<std::uint8_t[]> inflated;
};

// Checks and decodes one whole message. Returns what is wrong with it, or nothing.
std::string DecodeMessage(ByteView whole, Message& message);

}  // namespace remote
