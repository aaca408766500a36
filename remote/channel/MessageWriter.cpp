#include "remote/channel/MessageWriter.h"

#include <zlib.h>

#include <utility>

#include "wire/ChannelMessages.h"

namespace remote {

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

bool PushForward(OutputQueue& output, std::uint32_t devid, Bytes pdu, bool compress) {
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
    output.Push(ToBytes(head));
    output.Push(std::move(pdu));
    output.Push(Bytes(kForwardFiller));
    return head.rawsize != 0;
}

}  // namespace remote
