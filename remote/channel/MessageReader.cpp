#include "remote/channel/MessageReader.h"

#include <zlib.h>

#include <new>

namespace remote {
namespace {

constexpr std::size_t kHead = sizeof(usbip_message_head);
constexpr std::size_t kForwardFields = sizeof(usbip_forward) - kHead;

// Replaces `data`, a zlib stream, by what it inflates to. Returns what is wrong, or nothing.
std::string inflate(ByteView& data, std::uint32_t rawsize, Message& message) {
    if (rawsize > kMaxRawSize) return "forward inflates to " + std::to_string(rawsize) + " bytes";
    // Not cleared: until it is written, the operating system commits no memory to a lie.
    message.inflated.reset(new (std::nothrow) std::uint8_t[rawsize]);
    if (!message.inflated) return "no memory to inflate a forward";
    uLongf inflated = rawsize;
    uLong used = data.size();
    const int result = uncompress2(message.inflated.get(), &inflated, data.data(), &used);
    if (result != Z_OK || inflated != rawsize || used != data.size()) {
        return "forward's zlib stream is damaged or not " + std::to_string(rawsize) + " bytes long";
    }
    data = {message.inflated.get(), rawsize};
    return {};
}

std::string decode_forward(ByteView payload, Message& message) {
    if (payload.size() < kForwardFields) return "forward too short";
    const std::uint32_t datasize = LoadLe32(payload.data() + 4);
    const std::uint32_t rawsize = LoadLe32(payload.data() + 8);
    payload = payload.subspan(kForwardFields);
    if (datasize > payload.size()) {
        return "forward of " + std::to_string(payload.size()) + " bytes announces " +
               std::to_string(datasize);
    }
    ByteView pdu = payload.first(datasize);
    if (rawsize != 0) {
        std::string error = inflate(pdu, rawsize, message);
        if (!error.empty()) return error;
    }
    return DecodeCommand(pdu, message.command);
}

}  // namespace

ByteView MessageReader::Next() {
    const ByteView unread = input_.Unread();
    if (!error_.empty() || unread.size() < sizeof(_MESSAGE_HEADER)) return {};
    const std::size_t length = LoadLe32(unread.data());
    if (length > kMaxMessage - sizeof(_MESSAGE_HEADER)) {
        error_ = "message announces " + std::to_string(length) + " bytes";
        return {};
    }
    if (length > unread.size() - sizeof(_MESSAGE_HEADER)) return {};
    return input_.Take(sizeof(_MESSAGE_HEADER) + length);
}

std::string DecodeMessage(ByteView whole, Message& message) {
    if (whole.size() < kHead) return "message of " + std::to_string(whole.size()) + " bytes";
    const auto head = LoadRaw<usbip_message_head>(whole.data());
    if (head.outer.type != kUsbipChannel) {
        return "message for channel " + std::to_string(head.outer.type);
    }
    ByteView payload = whole.subspan(kHead);
    if (head.inner.length > payload.size()) {
        return "inner message announces " + std::to_string(head.inner.length) + " of " +
               std::to_string(payload.size()) + " bytes";
    }
    payload = payload.first(head.inner.length);
    if (payload.size() < sizeof message.devid) {
        return "message with a payload of " + std::to_string(payload.size()) + " bytes";
    }
    const std::uint32_t number = LoadLe32(payload.data());
    message.type = static_cast<UsbipMessageType>(head.inner.type);
    if (message.type == kUsbipVersionRsp) {
        message.version = number;
        return {};
    }
    message.devid = number;
    if (message.type == kUsbipDevUnmap) return {};
    if (message.type == kUsbipForward) return decode_forward(payload, message);
    return "message of type " + std::to_string(head.inner.type);
}

}  // namespace remote
