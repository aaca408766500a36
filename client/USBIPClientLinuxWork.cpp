// The work thread: attaches the device, then moves PDUs from the kernel to the peer.

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>

#include "client/IClientUsbipListenter.h"
#include "client/USBIPClientLinux.h"
#include "module/runtime/XJModLog.h"
#include "vhci/USBVHCI_linux.h"

namespace {

constexpr int kPollMs = 500;

// From its address to its sysfs entry a device answers a dozen control requests, across a link that
// may be slow; the kernel gives each of them five seconds.
constexpr std::chrono::seconds kSettleTime{5};
constexpr int kSettlePauseMs = 250;

}  // namespace

bool CUsbipClientLinux::WorkThreadFunction() {
    m_workThread.Enter();
    const bool again = WorkThreadLoop();
    if (!again)
        XJModLog(1, "[CUsbipClientLinux] %d work thread prepare quit", static_cast<int>(m_devId));
    return again;
}

bool CUsbipClientLinux::WorkThreadLoop() {
    XJModLog(1, "[CUsbipClientLinux] start attach vhci device");
    if (!AttachDevice()) {
        m_clientEnd.Leave();
        return false;
    }
    XJModLog(1, "[CUsbipClientLinux] attach sucess");
    XJModLog(1, "start forward data loop");
    ForwardLoop();
    XJModLog(1, "[CUsbipClientLinux] work loop exit");
    ReportDetach();
    m_bQuit = true;
    m_recvSem.Post();
    // The kernel frees the port now, and a write in progress ends.
    m_clientEnd.Shutdown();
    m_clientEnd.Leave();
    return false;
}

// A device that is mapped while the kernel enumerates another one finds a port in use without its
// local device. That passes, so it is given a while; and as many times as there are such devices,
// since the kernel enumerates one after the other.
bool CUsbipClientLinux::AttachDevice() {
    std::string awaited;
    auto give_up = std::chrono::steady_clock::now();
    for (;;) {
        std::string unsettled;
        const AttachResult result = TryAttach(unsettled);
        if (result != AttachResult::kUnsettled) return result == AttachResult::kDone;
        if (unsettled != awaited) {
            awaited = std::move(unsettled);
            give_up = std::chrono::steady_clock::now() + kSettleTime;
        }
        pollfd end{m_clientEnd.Get(), POLLIN, 0};
        poll(&end, 1, kSettlePauseMs);  // Stop's shutdown ends the pause
        if (m_bQuit || std::chrono::steady_clock::now() >= give_up) {
            XJModLog(4, "[CUsbipClientLinux]  vhci open fail");
            return false;
        }
    }
}

// `unsettled` receives the bus id of the device that kUnsettled is about.
CUsbipClientLinux::AttachResult CUsbipClientLinux::TryAttach(std::string& unsettled) try {
    // Held from reading the port table to the attach request: two clients never choose one port.
    CLockGuard guard(CLinuxVHCI::AttachLock());
    CLinuxVHCI vhci;
    if (!vhci.Open()) {
        unsettled = vhci.Unsettled();
        if (!unsettled.empty()) return AttachResult::kUnsettled;
        XJModLog(4, "[CUsbipClientLinux]  vhci open fail");
        return AttachResult::kFailed;
    }
    unsigned char port = 0;
    if (!vhci.Attach(m_kernelEnd, static_cast<unsigned short>(m_devInfo.busid),
                     static_cast<unsigned short>(m_devInfo.portid), m_devInfo.speed, &port)) {
        XJModLog(4, "[CUsbipClientLinux]  vhci attach fail");
        return AttachResult::kFailed;
    }
    m_kernelEnd = -1;  // Attach has closed it; the kernel holds the socket
    XJModLog(1, "[CUsbipClientLinux] attach vid: %04x, pid: %04x", m_devInfo.vid, m_devInfo.pid);
    return AttachResult::kDone;
} catch (const std::bad_alloc&) {
    XJModLog(4, "[CUsbipClientLinux]  vhci attach fail, out of memory");
    return AttachResult::kFailed;
}

void CUsbipClientLinux::ForwardLoop() {
    while (!m_bQuit) {
        pollfd end{m_clientEnd.Get(), POLLIN, 0};
        poll(&end, 1, kPollMs);
        if (m_bQuit) return;
        if ((end.revents & POLLERR) != 0) {
            XJModLog(4, "poll err");
            return;
        }
        if ((end.revents & (POLLIN | POLLHUP)) == 0) continue;
        if (!CheckDevRead()) {
            XJModLog(4, "read dev fail");
            return;
        }
    }
}

// One read of at most the rest of one PDU; hands the PDU on when it is whole. False: the
// connection is at its end or cannot go on.
bool CUsbipClientLinux::CheckDevRead() try {
    UsbipPduLength length;
    if (!DevBufLength(length)) return false;
    if (m_devBuf.size() < length.Total()) m_devBuf.resize(length.Total());
    const ssize_t got =
        recv(m_clientEnd.Get(), m_devBuf.data() + m_devBufLen, length.Total() - m_devBufLen, 0);
    if (got < 0) {
        if (errno == EINTR) return true;
        XJModLog(4, "[CUsbipClientLinux] read device fail, %d", errno);
        return false;
    }
    if (got == 0) return false;  // the kernel has shut its end
    m_devBufLen += static_cast<std::size_t>(got);

    if (!DevBufLength(length)) return false;
    if (m_devBufLen < length.Total()) return true;
    PassOn({m_devBuf.data(), m_devBufLen});
    m_devBufLen = 0;  // no read goes past the PDU
    return true;
} catch (const std::bad_alloc&) {
    XJModLog(4, "[CUsbipClientLinux] out of memory for a PDU of the kernel's");
    return false;
}

// Of the PDU being assembled; until its header is there, of the header.
bool CUsbipClientLinux::DevBufLength(UsbipPduLength& length) {
    usbip_header header;
    if (m_devBufLen < sizeof header) return true;
    std::memcpy(&header, m_devBuf.data(), sizeof header);
    return CalcLen(header, true, false, length);
}

// Remembered before the peer sees the command, so that its reply finds the entry.
void CUsbipClientLinux::PassOn(std::string_view pdu) {
    if (m_outstanding.Record(pdu)) XJModLog(4, "[CUsbipClientLinux] out seq list overflow");
    SendUsbipPacket(pdu.data(), pdu.size());
}

void CUsbipClientLinux::SendUsbipPacket(const char* data, unsigned long len) {
    if (m_pListener != nullptr) m_pListener->OnUsbipPacket(m_devId, data, len);
}

void CUsbipClientLinux::ReportDetach() {
    if (m_pListener != nullptr) m_pListener->OnUsbipDeviceError(m_devId);
}
