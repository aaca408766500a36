// One mapped device: a socket pair whose one end the kernel's vhci_hcd talks USB/IP to, and two
// threads that move whole PDUs between the other end and the plug-in.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/BaseThread.h"
#include "base/Buffer.h"
#include "base/Lock.h"
#include "base/Semaphore.h"
#include "client/IUsbipClient.h"
#include "wire/UsbipPdu.h"

// The locks are never held together, and none is held across a wait, a read or a write (m_runLock
// excepted, which only orders calls of Run).
class CUsbipClientLinux : public IUsbipClient, protected CReference {
  public:
    CUsbipClientLinux();
    ~CUsbipClientLinux() override;

    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void SetListener(IClientUsbipListenter* listener) override { m_pListener = listener; }
    void SetDevId(unsigned int devid) override { m_devId = devid; }
    unsigned int GetDevId() override { return m_devId; }
    void SetDevInfo(const _USBIP_DEV& info) override { m_devInfo = info; }
    const _USBIP_DEV* GetDevInfo() override { return &m_devInfo; }
    bool Run() override;
    bool Stop() override;
    bool Forward(const char* data, unsigned long len) override;

  private:
    // The length of the PDU whose first `len` bytes are at `hdr`, from its header alone.
    // `fromDev`: read from the kernel (commands), else received from the peer (replies).
    // `isOut`: it belongs to an OUT transfer. `total` = header + `dataLen` + `isoLen`, in bytes.
    // False: fewer than 48 bytes (silent), or a command or length that is refused (logged).
    bool CalcLen(const usbip_header* hdr, int len, bool fromDev, bool& isOut, int& dataLen,
                 int& isoLen, int& total);
    bool CalcLen(const usbip_header* hdr, int len, bool fromDev, int& total);

    // Work thread: attaches, then moves PDUs from the kernel to the listener.
    bool WorkThreadFunction();
    bool WorkThreadLoop();
    bool AttachDevice();
    enum class AttachResult { kDone, kFailed, kUnsettled };
    AttachResult TryAttach(std::string& unsettled);
    void ForwardLoop();
    bool CheckDevRead();
    void RecordOutSeq(unsigned int seqnum);
    void SendUsbipPacket(const char* data, unsigned long len);
    void ReportDetach();

    // Write thread: moves PDUs from the peer to the kernel.
    bool WriteThreadFunction();
    bool WriteThreadLoop();
    CRefObj<IBuffer> PopRecvBuf(int timeout);
    bool WriteDevice(const char* data, unsigned long len);

    void ShutdownClientEnd();
    void LeaveClientEnd();

    const CRefObj<IMemAlloctor> m_pAllocator;

    std::atomic<bool> m_bQuit{false};  // stop flag; whoever sets it also posts m_recvSem,
                                       // except the write thread itself
    // Set before Run, constant while the threads run.
    IClientUsbipListenter* m_pListener = nullptr;  // borrowed
    unsigned int m_devId = 0;
    _USBIP_DEV m_devInfo{};

    // Owned by whoever calls Run and Stop.
    std::unique_ptr<CUsbipClientLinuxThread> m_pWorkThread;
    std::unique_ptr<CUsbipClientLinuxThread> m_pWriteThread;
    CMutexLock m_runLock;  // serialises Run

    CMutexLock m_recvLock;                   // guards m_recvList
    std::list<CRefObj<IBuffer>> m_recvList;  // PDUs for the kernel, oldest first
    CSemaphore m_recvSem{0};                 // wakes the write thread

    // The work thread's. The PDU being assembled starts at the first byte.
    std::vector<char> m_devBuf;  // grows to the largest PDU seen
    std::size_t m_devBufLen = 0;

    // [0] the client's end: read by the work thread, written by the write thread; closed under
    // m_sockLock by the last of the two to leave it, or by Stop after it has joined both.
    // [1] the kernel's end: the work thread's until it has attached it, else closed by Stop.
    // -1: not open.
    int m_sockfd[2] = {-1, -1};

    CMutexLock m_seqLock;              // guards m_outSeqs
    std::set<unsigned int> m_outSeqs;  // OUT commands whose reply has not come yet

    CMutexLock m_sockLock;  // guards closing and shutting down m_sockfd[0], and m_endUsers
    int m_endUsers = 0;     // threads that still use m_sockfd[0]
};
