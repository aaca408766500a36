#include "remote/channel/Channel.h"

#include <zlib.h>

#include <algorithm>
#include <new>
#include <utility>

#include "wire/UsbipPdu.h"

namespace remote {
namespace {

constexpr std::size_t kHead = sizeof(usbip_message_head);
constexpr std::size_t kForwardFields = sizeof(usbip_forward) - kHead;

template <typename T>
Bytes to_bytes(const T& message) {
    Bytes bytes(sizeof message);
    std::memcpy(bytes.data(), &message, sizeof message);
    return bytes;
}

std::string check_command(ByteView pdu) {
    if (pdu.size() < sizeof(usbip_header)) {
        return "PDU of " + std::to_string(pdu.size()) + " bytes is shorter than its header";
    }
    const auto header = LoadRaw<usbip_header>(pdu.data());
    UsbipPduLength length;
    switch (be32toh(header.command)) {
        case USBIP_CMD_SUBMIT:
            length = UsbipCmdSubmitLength(header);
            break;
        case USBIP_CMD_UNLINK:
            break;
        default:
            return "PDU with unknown command " + std::to_string(be32toh(header.command));
    }
    if (!length.Acceptable() || length.Total() != pdu.size()) {
        return "PDU of " + std::to_string(pdu.size()) + " bytes announces " +
               std::to_string(length.Total());
    }
    return {};
}

std::string inflate_into(ByteView data, std::uint32_t rawsize, Message& message) {
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
    message.pdu = {message.inflated.get(), rawsize};
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
    message.pdu = payload.first(datasize);
    if (rawsize != 0) {
        std::string error = inflate_into(message.pdu, rawsize, message);
        if (!error.empty()) return error;
    }
    return check_command(message.pdu);
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
    if (payload.size() < sizeof message.number) {
        return "message with a payload of " + std::to_string(payload.size()) + " bytes";
    }
    message.number = LoadLe32(payload.data());
    message.type = static_cast<UsbipMessageType>(head.inner.type);
    switch (message.type) {
        case kUsbipVersionRsp:
        case kUsbipDevUnmap:
            return {};
        case kUsbipForward:
            return decode_forward(payload, message);
        default:
            return "message of type " + std::to_string(head.inner.type);
    }
}

Bytes EncodeVersionReq(bool compress) {
    usbip_version_req message{};
    message.head = MakeMessageHead(kUsbipVersionReq, sizeof message);
    message.flags = compress ? kVersionFlagCompress : 0;
    return to_bytes(message);
}

Bytes EncodeDevMap(std::uint32_t devid, std::uint32_t bus, std::uint32_t port,
                   const DeviceInfo& info) {
    usbip_dev_map message{};
    message.head = MakeMessageHead(kUsbipDevMap, sizeof message);
    message.devid = devid;
    info.instance.copy(message.dev.instanceid, sizeof message.dev.instanceid - 1);
    message.dev.busid = bus;
    message.dev.portid = port;
    message.dev.speed = static_cast<std::uint32_t>(info.speed);
    message.dev.vid = info.vendor;
    message.dev.pid = info.product;
    return to_bytes(message);
}

Bytes EncodeDevUnmap(std::uint32_t devid) {
    usbip_dev_unmap message{};
    message.head = MakeMessageHead(kUsbipDevUnmap, sizeof message);
    message.devid = devid;
    return to_bytes(message);
}

void OutputQueue::Push(Bytes piece) {
    pending_ += piece.size();
    pieces_.push_back(std::move(piece));
}

bool OutputQueue::PushForward(std::uint32_t devid, Bytes pdu, bool compress) {
    usbip_forward head{};
    if (compress && pdu.size() > kCompressThreshold) {
        Bytes deflated(compressBound(pdu.size()));
        uLongf length = deflated.size();
        if (compress2(deflated.data(), &length, pdu.data(), pdu.size(), Z_DEFAULT_COMPRESSION) ==
            Z_OK) {
            deflated.resize(length);
            head.rawsize = static_cast<std::uint32_t>(pdu.size());
            pdu = std::move(deflated);
        }
    }
    head.head = MakeMessageHead(kUsbipForward, kForwardOverhead + pdu.size());
    head.devid = devid;
    head.datasize = static_cast<std::uint32_t>(pdu.size());
    Push(to_bytes(head));
    Push(std::move(pdu));
    Push(Bytes(kForwardFiller));
    return head.rawsize != 0;
}

std::size_t OutputQueue::Gather(std::span<iovec> vectors) const {
    const std::size_t count = std::min(vectors.size(), pieces_.size());
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t skip = i == 0 ? sent_ : 0;
        // writev only reads, but shares its record with readv.
        vectors[i].iov_base = const_cast<std::uint8_t*>(pieces_[i].data()) + skip;
        vectors[i].iov_len = pieces_[i].size() - skip;
    }
    return count;
}

void OutputQueue::Consume(std::size_t count) {
    pending_ -= count;
    while (count != 0) {
        const std::size_t left = pieces_.front().size() - sent_;
        if (count < left) {
            sent_ += count;
            return;
        }
        count -= left;
        sent_ = 0;
        pieces_.pop_front();
    }
}

}  // namespace remote
