// One mapped device: a socket pair whose one end the kernel's vhci_hcd talks USB/IP to, and two
// threads that move whole PDUs between the other end and the plug-in.
#pragma once

#include <sys/uio.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/BaseThread.h"
#include "base/Buffer.h"
#include "base/Lock.h"
#include "base/Semaphore.h"
#include "client/IUsbipClient.h"
#include "client/OutstandingCommands.h"
#include "client/SharedEnd.h"

// Threads: see IUsbipClient. Lock order: m_runLock is held while the threads are joined, and with
// them comes before every other lock here. The others are innermost: nothing is locked, nobody
// called and nothing logged while one is held, and none is held across a wait, a read or a write.
class CUsbipClientLinux : public IUsbipClient, protected CReference {
  public:
    CUsbipClientLinux() = default;
    ~CUsbipClientLinux() override;

    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void SetListener(IClientUsbipListenter* listener) override { m_pListener = listener; }
    void SetDevId(unsigned int devid) override { m_devId = devid; }
    unsigned int GetDevId() override { return m_devId; }
    void SetDevInfo(const _USBIP_DEV& info) override { m_devInfo = info; }
    const _USBIP_DEV* GetDevInfo() override { return &m_devInfo; }
    bool Run() override EXCLUDES(m_runLock);
    bool Stop() override EXCLUDES(m_runLock);
    bool Forward(IBuffer* message, std::string_view bytes) override EXCLUDES(m_recvLock);
    bool Accepts(unsigned long len) override EXCLUDES(m_recvLock);

  private:
    // The length of the PDU that `header` begins. `fromDev`: read from the kernel (a command), else
    // received from the peer (a reply, `answersOut` or not). False: refused, with a log line.
    static bool CalcLen(const usbip_header& header, bool fromDev, bool answersOut,
                        UsbipPduLength& length);

    std::unique_ptr<CUsbipClientLinuxThread> StartThread(const std::string& what,
                                                         std::function<bool()> loop);
    void JoinThreads() REQUIRES(m_runLock);

    // Work thread: attaches, then moves PDUs from the kernel to the listener.
    bool WorkThreadFunction();
    bool WorkThreadLoop() REQUIRES(m_workThread);
    bool AttachDevice() REQUIRES(m_workThread);
    void ForwardLoop() REQUIRES(m_workThread);
    enum class Read { kGood, kFailed, kReset };  // kReset: the kernel left with bytes unread
    Read CheckDevRead() REQUIRES(m_workThread);
    bool DevBufLength(UsbipPduLength& length) REQUIRES(m_workThread);
    void PassOn(std::string_view pdu) REQUIRES(m_workThread);
    void SendUsbipPacket(const char* data, unsigned long len) REQUIRES(m_workThread);
    void ReportDetach() REQUIRES(m_workThread);
    void CloseKernelEnd() REQUIRES(m_workThread);

    // From the peer to the kernel.
    enum class Verdict { kUnchecked, kGood, kNotWhole, kUnsafe };
    struct CForwarded {
        CRefObj<IBuffer> message;  // where the bytes stand
        std::string_view bytes;    // once they are checked: what may be written
        Verdict verdict = Verdict::kUnchecked;
    };
    // How the PDU at the front of `bytes` is. kGood: its `size` bytes may be written. Anything else
    // is logged; `first`: nothing of its forward message stands before it.
    Verdict CheckNetRecv(std::string_view bytes, bool first, std::size_t& size) REQUIRES(m_writer);
    void Check(CForwarded& forwarded) REQUIRES(m_writer);
    bool WriteAtOnce(CForwarded& forwarded) REQUIRES(m_writer);
    bool NothingWaits() EXCLUDES(m_recvLock);
    bool WriteThreadFunction();
    bool WriteThreadLoop() REQUIRES(m_writer);
    bool WaitForForwards() REQUIRES(m_writer) EXCLUDES(m_recvLock);
    bool WriteDevice(std::span<iovec> pieces) REQUIRES(m_writer);
    void StartTaking() EXCLUDES(m_recvLock);
    void StopTaking() EXCLUDES(m_recvLock);

    // Both threads wake and end; the work thread reports the end.
    void EndDevice();

    // Constant after construction.
    const CThreadRole m_workThread{};
    const CThreadRole m_writer{};  // the write thread; the Run thread while nothing waits for that

    // Set before Run or by Run, constant while the threads run.
    IClientUsbipListenter* m_pListener = nullptr;  // borrowed
    unsigned int m_devId = 0;
    _USBIP_DEV m_devInfo{};

    // Their own synchronisation.
    std::atomic<bool> m_bQuit{false};  // stop flag; whoever sets it also posts m_recvSem
    CSemaphore m_recvSem{0};           // wakes the write thread
    CSharedEnd m_clientEnd;            // the work thread reads from it, the writer writes
    COutstandingCommands m_outstanding;

    CMutexLock m_runLock;  // serialises Run and Stop
    std::unique_ptr<CUsbipClientLinuxThread> m_pWorkThread GUARDED_BY(m_runLock);
    std::unique_ptr<CUsbipClientLinuxThread> m_pWriteThread GUARDED_BY(m_runLock);

    CMutexLock m_recvLock;  // before the lock of the allocator that buffers go back to
    std::deque<CForwarded> m_recvList GUARDED_BY(m_recvLock);  // for the kernel, oldest first
    std::size_t m_nWaiting GUARDED_BY(m_recvLock) = 0;         // in the list and in m_taken
    unsigned long m_recvBytes GUARDED_BY(m_recvLock) = 0;      // of those
    bool m_bTaking GUARDED_BY(m_recvLock) = false;  // the write thread is there to take them

    std::deque<CForwarded> m_taken GUARDED_BY(m_writer);  // off the list, not yet written

    // The work thread's, and of Run and Stop while there is none.
    std::vector<char> m_devBuf GUARDED_BY(m_workThread);  // grows to the largest PDU seen; each
                                                          // starts at its first byte
    std::size_t m_devBufLen GUARDED_BY(m_workThread) = 0;
    int m_kernelEnd GUARDED_BY(m_workThread) = -1;  // of the socket pair, until it is attached
};
