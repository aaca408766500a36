// The remote side's half of the channel protocol: whole messages out of a byte stream, checked and
// inflated, and messages into one. Pure: no descriptor, no thread.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>

#include "remote/device/Device.h"
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
    // Where the next bytes of the stream go; never empty. Ends the life of the last message.
    ByteSpan Space() { return input_.Space(); }
    void Advance(std::size_t count) { input_.Advance(count); }  // so many were placed in Space

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
    UsbipMessageType type{};   // kUsbipVersionRsp, kUsbipDevUnmap or kUsbipForward
    std::uint32_t number = 0;  // a version response's version, else the device id
    ByteView pdu;              // of a forward: one whole command; in the message or in `inflated`
    std::unique_ptr<std::uint8_t[]> inflated;
};

// Checks and decodes one whole message of the client. Returns what is wrong with it, or nothing.
std::string DecodeMessage(ByteView whole, Message& message);

Bytes EncodeVersionReq(bool compress);
Bytes EncodeDevMap(std::uint32_t devid, std::uint32_t bus, std::uint32_t port,
                   const DeviceInfo& info);
Bytes EncodeDevUnmap(std::uint32_t devid);

// Messages on their way out, oldest first.
class OutputQueue {
  public:
    void Push(Bytes piece);

    // Queues a forward of `pdu`, compressed when that is asked for and the PDU is long enough.
    // Returns whether it was.
    bool PushForward(std::uint32_t devid, Bytes pdu, bool compress);

    std::size_t Pending() const { return pending_; }     // bytes
    std::size_t Gather(std::span<iovec> vectors) const;  // returns how many were filled
    void Consume(std::size_t count);                     // `count` bytes are on their way

  private:
    std::deque<Bytes> pieces_;
    std::size_t sent_ = 0;  // of the first piece
    std::size_t pending_ = 0;
};

}  // namespace remote
