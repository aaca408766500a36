#include "remote/channel/MessageWriter.h"

#include <algorithm>
#include <utility>

#include "wire/ChannelMessages.h"

namespace remote {
namespace {

// Up to this size a PDU is copied between its head and the filler: that takes less than pieces do.
constexpr std::size_t kCopied = std::size_t{1} << 10;

}  // namespace

Bytes EncodeVersionReq(bool compress) {
    usbip_version_req message{};
    message.head = MakeMessageHead(kUsbipVersionReq, sizeof message);
    message.flags = compress ? kVersionFlagCompress : 0;
    return ToBytes(message);
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
    return ToBytes(message);
}

Bytes EncodeDevUnmap(std::uint32_t devid) {
    usbip_dev_unmap message{};
    message.head = MakeMessageHead(kUsbipDevUnmap, sizeof message);
    message.devid = devid;
    return ToBytes(message);
}

bool PushForward(OutputQueue& output, std::uint32_t devid, Bytes pdu, Compressor* compressor) {
    usbip_forward head{};
    if (compressor != nullptr && pdu.size() > kCompressThreshold) {
        const ByteView deflated = compressor->Compress(pdu);
        if (!deflated.empty()) {
            head.rawsize = static_cast<std::uint32_t>(pdu.size());
            pdu.assign(deflated.begin(), deflated.end());
        }
    }
    head.head = MakeMessageHead(kUsbipForward, kForwardOverhead + pdu.size());
    head.devid = devid;
    head.datasize = static_cast<std::uint32_t>(pdu.size());
    if (pdu.size() <= kCopied) {
        Bytes message(kForwardOverhead + pdu.size());
        StoreRaw(message.data(), head);
        std::copy(pdu.begin(), pdu.end(), message.begin() + sizeof head);
        output.Push(std::move(message));
    } else {
        output.Push(ToBytes(head));
        output.Push(std::move(pdu));
        output.Push(Bytes(kForwardFiller));
    }
    return head.rawsize != 0;
}

}  // namespace remote
