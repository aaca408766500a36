#include "plugin/USBIPClientPlugin.h"

#include "module/runtime/XJModLog.h"

namespace {

// A stream whose Write keeps taking nothing is given up after this many tries (one second).
constexpr int kMaxEmptyWrites = 100;
constexpr timespec kEmptyWritePause{0, 10'000'000};

constexpr unsigned long kSendWaitMs = 500;

}  // namespace

UsbipClientPlugin::UsbipClientPlugin()
    : m_pAllocator(new CKeepingAlloctor), m_pSendThread(std::make_unique<CUsbipClientThread>()) {
    m_pSendThread->m_loop = [this] { return SendLoop(); };
    m_pSendThread->m_wake = [this] { m_sendQueue.wake(); };
    m_pSendThread->SetThreadName("usbipclient-send");
    m_pSendThread->SetKernelName("usbip-send");
}

UsbipClientPlugin::~UsbipClientPlugin() {
    UsbipClientPlugin::ExitInstance();
}

const UsbipClientPlugin::_MESSAGE_MAP_ENTRY* UsbipClientPlugin::GetSeparationMessageMap(
    unsigned long& entrySize) const {
    static const _MESSAGE_MAP_ENTRY _map[] = {
        {{kUsbipChannel, kUsbipVersionReq},
         2,
         static_cast<Handler>(&UsbipClientPlugin::OnProtoVersionReq)},
        {{kUsbipChannel, kUsbipDevMap}, 2, static_cast<Handler>(&UsbipClientPlugin::OnProtoDevMap)},
        {{kUsbipChannel, kUsbipDevUnmap},
         2,
         static_cast<Handler>(&UsbipClientPlugin::OnProtoDevUnmap)},
        {{kUsbipChannel, kUsbipForward},
         2,
         static_cast<Handler>(&UsbipClientPlugin::OnProtoForward)},
        {},
    };
    entrySize = sizeof _map[0];
    return _map;
}

bool UsbipClientPlugin::OnSeparationMessage(int index, const void* payload, unsigned long length,
                                            IBuffer* message) {
    unsigned long entrySize = 0;
    const Handler handler = GetSeparationMessageMap(entrySize)[index].handler;
    try {
        return (this->*handler)(payload, length, message);
    } catch (const std::bad_alloc&) {
        XJModLog(4, "[usbipclient] out of memory, message %d dropped", index);
        return false;
    }
}

long UsbipClientPlugin::InitInstance(IPluginStreamRaw* stream) {
    m_pStream = stream;
    return 0;
}

long UsbipClientPlugin::Run() {
    XJModLog(1, "[usbipclient] Run start");
    m_bStreamEnded = false;
    m_sendQueue.clear();
    if (StartSending()) {
        const long end =
            SeparationMessageLoop<UsbipClientPlugin>(m_pStream.Get(), m_pAllocator.Get(), this);
        m_bStreamEnded = end != kSeparationNoStream;
    } else {
        XJModLog(4, "[usbipclient] thread usbipclient-send cannot be made");
    }
    XJModLog(1, "[usbipclient] Run return");
    return 1;
}

long UsbipClientPlugin::ExitInstance() {
    XJModLog(1, "[usbipclient] ExitInstance");
    XJModLog(8, "[usbipclient] start to clear devs");
    std::map<unsigned int, CRefObj<IUsbipClient>> devices;
    {
        CLockGuard guard(m_devicesLock);
        devices.swap(m_devices);
    }
    for (auto& [devid, client] : devices)
        client->Stop();
    devices.clear();
    XJModLog(8, "[usbipclient] finish to clear devs");
    XJModLog(8, "[usbipclient] start to stop send thread");
    StopSending();
    XJModLog(8, "[usbipclient] ExitInstance finish");
    return 0;
}

bool UsbipClientPlugin::StartSending() {
    CLockGuard guard(m_sendThreadLock);
    return m_pSendThread->Run();
}

void UsbipClientPlugin::StopSending() {
    CLockGuard guard(m_sendThreadLock);
    m_pSendThread->Stop();
}

CRefObj<IUsbipClient> UsbipClientPlugin::FindDevice(unsigned int devid) {
    CLockGuard guard(m_devicesLock);
    const auto entry = m_devices.find(devid);
    return entry != m_devices.end() ? entry->second : CRefObj<IUsbipClient>();
}

CRefObj<IUsbipClient> UsbipClientPlugin::TakeDevice(unsigned int devid) {
    CLockGuard guard(m_devicesLock);
    const auto node = m_devices.extract(devid);
    return node ? node.mapped() : CRefObj<IUsbipClient>();
}

bool UsbipClientPlugin::HasRoomFor(unsigned int devid) {
    CLockGuard guard(m_devicesLock);
    return m_devices.size() < kMostDevices || m_devices.count(devid) != 0;
}

CRefObj<IBuffer> UsbipClientPlugin::NewMessage(unsigned long size) {
    CRefObj<IBuffer> buffer = m_pAllocator->GetFreeBuffer(size);
    if (!buffer || buffer->SetSize(size) != size) {
        XJModLog(4, "[usbipclient] no buffer for a message of %lu bytes, dropped", size);
        return {};
    }
    return buffer;
}

bool UsbipClientPlugin::WriteMessage(const void* data, unsigned long size) {
    const CRefObj<IPluginStreamRaw> stream = m_pStream;
    if (!stream) return false;
    const auto* next = static_cast<const char*>(data);
    int empty_writes = 0;
    CLockGuard guard(m_writeLock);
    while (size > 0) {
        unsigned long written = 0;
        if (stream->Write(next, size, &written, 0) != 0 || written > size) return false;
        if (written == 0) {
            if (++empty_writes == kMaxEmptyWrites) return false;
            nanosleep(&kEmptyWritePause, nullptr);
            continue;
        }
        empty_writes = 0;
        next += written;
        size -= written;
    }
    return true;
}

bool UsbipClientPlugin::SendLoop() {
    CRefObj<IBuffer> message;
    if (!m_sendQueue.pop(message, kSendWaitMs)) {
        m_pAllocator->GiveBack();  // for some time nobody has asked the devices for anything
        return true;
    }
    const auto* bytes = static_cast<const unsigned char*>(message->GetPointer());
    // Of a stream that has ended nothing else is to be expected.
    if (!WriteMessage(bytes, message->GetSize()) && !m_bStreamEnded) {
        const auto* head = reinterpret_cast<const usbip_message_head*>(bytes);
        XJModLog(4, "[usbipclient] Send2StreamRaw fail, type: %X/%X .", head->outer.type,
                 head->inner.type);
    }
    return true;
}
