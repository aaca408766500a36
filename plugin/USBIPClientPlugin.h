// The plug-in object: the host's stream, the registry of mapped devices, and the send queue.
//
// Threads that enter it: the host's thread in Run (reading and all handlers), the host's thread in
// ExitInstance and Release, the send thread, and each device client's work thread through the
// listener interface.
#pragma once

#include <atomic>
#include <map>
#include <memory>

#include "base/BaseThread.h"
#include "base/Buffer.h"
#include "base/KeepingAlloctor.h"
#include "base/Lock.h"
#include "base/SemQueue.h"
#include "client/IClientUsbipListenter.h"
#include "client/IUsbipClient.h"
#include "plugin/MessageSeparation.h"
#include "xj-client-usbip/PluginAbi.h"

using CUsbipMessageSeparation =
    CMessageSeparation_T<_MESSAGE_HEADER, IBuffer*, 2, unsigned long, bool>;

// Bases, and the operations in this order, are the ABI that hosts are compiled against.
class UsbipClientPlugin : public CUsbipMessageSeparation,
                          public IClientUsbipPlugin,
                          public IClientUsbipListenter,
                          protected CReference {
  public:
    UsbipClientPlugin();
    ~UsbipClientPlugin() override;
    const _MESSAGE_MAP_ENTRY* GetSeparationMessageMap(unsigned long& entrySize) const override;
    bool OnSeparationMessage(int index, const void* payload, unsigned long length,
                             IBuffer* message) override;

    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void SetListener(IClientUsbipListenter*) override {}
    long GetInterface(const char*, void**) override { return 0; }
    long SetProperty(const char*, IXJModData*) override { return 0; }
    IXJModData* GetProperty(const char*) override { return nullptr; }
    long InitInstance(IPluginStreamRaw* stream) override;
    long Run() override;
    long ExitInstance() override;
    long Load(const wchar_t*) override { return 0; }
    void OnUsbipPacket(unsigned int devid, const char* data, unsigned long len) override;
    void OnUsbipDeviceError(unsigned int devid) override;

  private:
    // More than anybody plugs in. Each device costs the host threads, descriptors and memory.
    static constexpr std::size_t kMostDevices = 256;

    // Handlers of the message map, on the Run thread. They read their fields from the start of
    // `message`, which holds the whole message. False: refused, with a log line.
    bool OnProtoVersionReq(const void* payload, unsigned long length, IBuffer* message);
    bool OnProtoDevMap(const void* payload, unsigned long length, IBuffer* message);
    bool OnProtoDevUnmap(const void* payload, unsigned long length, IBuffer* message);
    bool OnProtoForward(const void* payload, unsigned long length, IBuffer* message);

    bool SendLoop();                                 // one pass of the send thread; true
    bool StartSending() EXCLUDES(m_sendThreadLock);  // false: there can be no thread
    void StopSending() EXCLUDES(m_sendThreadLock);
    // Writes a whole message; false when there is no stream, or it failed or takes nothing.
    bool WriteMessage(const void* data, unsigned long size) EXCLUDES(m_writeLock);
    // A buffer of exactly `size` bytes in use; empty, with a log line, when there is none.
    CRefObj<IBuffer> NewMessage(unsigned long size);
    // Queues a forward message, whose `size` bytes of data stand in it. `rawsize`: see
    // usbip_forward.
    void QueueForward(IBuffer* message, unsigned int devid, unsigned long size,
                      std::uint32_t rawsize);

    CRefObj<IUsbipClient> FindDevice(unsigned int devid) EXCLUDES(m_devicesLock);
    CRefObj<IUsbipClient> TakeDevice(unsigned int devid) EXCLUDES(m_devicesLock);
    bool HasRoomFor(unsigned int devid) EXCLUDES(m_devicesLock);

    // Constant after construction.
    const CRefObj<CKeepingAlloctor> m_pAllocator;

    // Set by InitInstance, constant while Run or the send thread is active.
    CRefObj<IPluginStreamRaw> m_pStream;

    // Their own synchronisation.
    std::atomic<bool> m_bCompress{false};          // set on the Run thread, read on work threads
    std::atomic<bool> m_bStreamEnded{false};       // set on the Run thread, read on the send thread
    CBufferQueue_T<CRefObj<IBuffer>> m_sendQueue;  // whole messages: one taker, the send thread

    // Held while the send thread is started or joined; that thread takes only m_writeLock.
    CMutexLock m_sendThreadLock;
    const std::unique_ptr<CUsbipClientThread> m_pSendThread PT_GUARDED_BY(m_sendThreadLock);

    // Innermost: never held while a client is started, stopped or destroyed, since those take their
    // time, nor while anything is logged.
    CMutexLock m_devicesLock;
    std::map<unsigned int, CRefObj<IUsbipClient>> m_devices GUARDED_BY(m_devicesLock);

    // Held around the host's Write for one whole message: the send thread and the version response
    // share the stream. Nothing is locked or logged while it is held.
    CMutexLock m_writeLock;
};
