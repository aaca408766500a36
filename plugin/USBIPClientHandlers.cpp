// What the plug-in does with each channel message, and the messages it sends for its devices.

#include <zlib.h>

#include <cstring>

#include "client/USBIPClientLinux.h"
#include "module/runtime/XJModLog.h"
#include "plugin/Deflater.h"
#include "plugin/USBIPClientPlugin.h"

namespace {

template <typename Message>
const Message& as(IBuffer* buffer) {
    return *static_cast<const Message*>(buffer->GetPointer());
}

template <typename Message>
bool long_enough(IBuffer* buffer, const char* name, std::size_t least = sizeof(Message)) {
    if (buffer->GetSize() >= least) return true;
    XJModLog(4, "[usbipclient] invalid %s package size %d", name,
             static_cast<int>(buffer->GetSize()));
    return false;
}

// The PDUs in `buffer` go to the kernel. They may wait, and are counted by their own length: what
// else the buffer has room for is given back.
void pass_on(IUsbipClient& client, IBuffer* buffer, std::size_t begin, std::size_t size) {
    buffer->Realloc(begin + size);
    client.Forward(buffer, {static_cast<const char*>(buffer->GetPointer()) + begin, size});
}

}  // namespace

bool UsbipClientPlugin::OnProtoVersionReq(const void*, unsigned long, IBuffer* message) {
    if (!long_enough<usbip_version_req>(message, "usbip_version_req")) return false;
    XJModLog(8, "[usbipclient] version req");
    m_bCompress = (as<usbip_version_req>(message).flags & kVersionFlagCompress) != 0;

    const CRefObj<IBuffer> response = NewMessage(sizeof(usbip_version_rsp));
    if (!response) return true;
    const usbip_version_rsp body{MakeMessageHead(kUsbipVersionRsp, sizeof body),
                                 kUsbipProtocolVersion};
    std::memcpy(response->GetPointer(), &body, sizeof body);
    WriteMessage(response->GetPointer(), response->GetSize());
    return true;
}

bool UsbipClientPlugin::OnProtoDevMap(const void*, unsigned long, IBuffer* message) {
    if (!long_enough<usbip_dev_map>(message, "usbip_dev_map")) return false;
    const auto& map = as<usbip_dev_map>(message);
    char instanceid[sizeof map.dev.instanceid + 1] = {};  // the peer's text may lack its NUL
    std::memcpy(instanceid, map.dev.instanceid, sizeof map.dev.instanceid);
    XJModLog(1, "[usbipclient] map device %d, busid %d portid %d instanceid %s",
             static_cast<int>(map.devid), static_cast<int>(map.dev.busid),
             static_cast<int>(map.dev.portid), instanceid);

    if (!HasRoomFor(map.devid)) {
        XJModLog(4, "[usbipclient] map device %d refused, %zu are mapped",
                 static_cast<int>(map.devid), kMostDevices);
        OnUsbipDeviceError(map.devid);
        return false;
    }

    const CRefObj<IUsbipClient> client(new CUsbipClientLinux);
    client->SetListener(this);
    client->SetDevId(map.devid);
    client->SetDevInfo(map.dev);

    TakeDevice(map.devid);  // drops the last reference on an earlier client of this id: it ends
    // Registered only when it runs, so that ExitInstance never meets a client that is starting.
    client->Run();
    CLockGuard guard(m_devicesLock);
    m_devices[map.devid] = client;
    return true;
}

bool UsbipClientPlugin::OnProtoDevUnmap(const void*, unsigned long, IBuffer* message) {
    if (!long_enough<usbip_dev_unmap>(message, "usbip_dev_unmap")) return false;
    const unsigned int devid = as<usbip_dev_unmap>(message).devid;
    XJModLog(1, "[usbipclient] unmap device %d", static_cast<int>(devid));
    if (const CRefObj<IUsbipClient> client = TakeDevice(devid)) client->Stop();
    return true;
}

bool UsbipClientPlugin::OnProtoForward(const void*, unsigned long, IBuffer* message) {
    if (!long_enough<usbip_forward>(message, "usbip_forward", kForwardOverhead)) return false;
    const auto& forward = as<usbip_forward>(message);
    const unsigned long size = message->GetSize();
    if (forward.datasize > size - sizeof forward) {
        XJModLog(4, "[usbipclient] invalid usbip_forward package size %d datasize %d",
                 static_cast<int>(size), static_cast<int>(forward.datasize));
        return false;
    }
    const CRefObj<IUsbipClient> client = FindDevice(forward.devid);
    if (!client) return true;
    if (forward.rawsize == 0) {
        pass_on(*client, message, sizeof forward, forward.datasize);
        return true;
    }
    if (forward.rawsize > kMaxRawSize) {
        XJModLog(4, "[usbipclient] invalid usbip_forward rawsize %u, limit %zu", forward.rawsize,
                 kMaxRawSize);
        return false;
    }
    if (!client->Accepts(forward.rawsize)) return true;
    const CRefObj<IBuffer> raw = m_pAllocator->GetFreeBuffer(forward.rawsize);
    if (!raw) {
        XJModLog(4, "[usbipclient] no scratch area of %u bytes, data dropped", forward.rawsize);
        return true;
    }
    // What a broken stream inflates to is not judged here: the client checks every PDU it writes.
    uLongf raw_length = forward.rawsize;
    uncompress(static_cast<Bytef*>(raw->GetPointer()), &raw_length,
               static_cast<const Bytef*>(message->GetPointer()) + sizeof forward, forward.datasize);
    pass_on(*client, raw.Get(), 0, raw_length);
    return true;
}

void UsbipClientPlugin::QueueForward(IBuffer* message, unsigned int devid, unsigned long size,
                                     std::uint32_t rawsize) {
    message->SetSize(size + kForwardOverhead);
    const usbip_forward forward{MakeMessageHead(kUsbipForward, message->GetSize()), devid,
                                static_cast<std::uint32_t>(size), rawsize};
    auto* bytes = static_cast<char*>(message->GetPointer());
    std::memcpy(bytes, &forward, sizeof forward);
    std::memset(bytes + sizeof forward + size, 0, kForwardFiller);
    m_sendQueue.push(message);
}

void UsbipClientPlugin::OnUsbipPacket(unsigned int devid, const char* data, unsigned long len) try {
    if (len > kMaxRawSize) {
        XJModLog(4, "[usbipclient] PDU of %lu bytes from device %u is too long, dropped", len,
                 devid);
        return;
    }
    const bool compressed = m_bCompress && len > kCompressThreshold;
    const unsigned long room = compressed ? compressBound(len) : len;
    const CRefObj<IBuffer> message = NewMessage(room + kForwardOverhead);
    if (!message) return;
    auto* const area = static_cast<char*>(message->GetPointer()) + sizeof(usbip_forward);
    unsigned long size = 0;
    if (compressed) {
        thread_local CDeflater deflater;  // each device has a thread of its own
        size = deflater.Deflate({data, len}, {area, room});
    }
    if (size != 0) {
        QueueForward(message.Get(), devid, size, static_cast<std::uint32_t>(len));
    } else {  // too short, or no memory for zlib: it goes as it is
        std::memcpy(area, data, len);
        QueueForward(message.Get(), devid, len, 0);
    }
} catch (const std::bad_alloc&) {
    XJModLog(4, "[usbipclient] out of memory, PDU of device %u dropped", devid);
}

void UsbipClientPlugin::OnUsbipDeviceError(unsigned int devid) try {
    XJModLog(1, "[usbipclient] device end %d", static_cast<int>(devid));
    const CRefObj<IBuffer> message = NewMessage(sizeof(usbip_dev_unmap));
    if (!message) return;
    const usbip_dev_unmap unmap{MakeMessageHead(kUsbipDevUnmap, sizeof unmap), devid};
    std::memcpy(message->GetPointer(), &unmap, sizeof unmap);
    m_sendQueue.push(message);
} catch (const std::bad_alloc&) {
    XJModLog(4, "[usbipclient] out of memory, end of device %u not reported", devid);
}
