// The work thread: attaches the device, then moves PDUs from the kernel to the peer.

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <new>

#include "client/IClientUsbipListenter.h"
#include "client/USBIPClientLinux.h"
#include "module/runtime/XJModLog.h"
#include "vhci/USBVHCI_linux.h"

namespace {

constexpr timeval kReadTimeout{0, 500'000};

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
    if (AttachDevice()) {
        XJModLog(1, "[CUsbipClientLinux] attach sucess");
        XJModLog(1, "start forward data loop");
        ForwardLoop();
        XJModLog(1, "[CUsbipClientLinux] work loop exit");
        ReportDetach();
    }
    // The kernel frees the port now, and a write in progress ends. What is not needed any more is
    // given back at once: the client may stay mapped for long.
    EndDevice();
    m_clientEnd.Leave(CSharedEnd::kReader);
    CloseKernelEnd();
    std::vector<char>().swap(m_devBuf);
    return false;
}

bool CUsbipClientLinux::AttachDevice() try {
    CLinuxVHCI vhci;
    if (!vhci.Open()) {
        XJModLog(4, "[CUsbipClientLinux]  vhci open fail");
        return false;
    }
    unsigned char port = 0;
    if (!vhci.Attach(m_kernelEnd, static_cast<unsigned short>(m_devInfo.busid),
                     static_cast<unsigned short>(m_devInfo.portid), m_devInfo.speed, &port)) {
        XJModLog(4, "[CUsbipClientLinux]  vhci attach fail");
        return false;
    }
    m_kernelEnd = -1;  // Attach has closed it; the kernel holds the socket
    XJModLog(1, "[CUsbipClientLinux] attach vid: %04x, pid: %04x", m_devInfo.vid, m_devInfo.pid);
    return true;
} catch (const std::bad_alloc&) {
    XJModLog(4, "[CUsbipClientLinux]  vhci attach fail, out of memory");
    return false;
}

// Reads wait by themselves, which saves a poll for each of them.
void CUsbipClientLinux::ForwardLoop() {
    setsockopt(m_clientEnd.Get(), SOL_SOCKET, SO_RCVTIMEO, &kReadTimeout, sizeof kReadTimeout);
    while (!m_bQuit) {
        const Read read = CheckDevRead();
        if (read == Read::kGood) continue;
        if (!m_bQuit) XJModLog(4, read == Read::kReset ? "poll err" : "read dev fail");
        return;
    }
}

// One read of at most the rest of one PDU; hands the PDU on when it is whole. Anything but kGood:
// the connection is at its end or cannot go on.
CUsbipClientLinux::Read CUsbipClientLinux::CheckDevRead() try {
    UsbipPduLength length;
    if (!DevBufLength(length)) return Read::kFailed;
    if (m_devBuf.size() < length.Total()) m_devBuf.resize(length.Total());
    const ssize_t got = recv(m_clientEnd.Get(), m_devBuf.data() + m_devBufLen,
                             length.Total() - m_devBufLen, MSG_WAITALL);
    if (got < 0) {
        if (errno == EINTR || errno == EAGAIN) return Read::kGood;
        if (errno == ECONNRESET) return Read::kReset;
        if (!m_bQuit) XJModLog(4, "[CUsbipClientLinux] read device fail, %d", errno);
        return Read::kFailed;
    }
    if (got == 0) return Read::kFailed;  // the kernel has shut its end
    m_devBufLen += static_cast<std::size_t>(got);

    if (!DevBufLength(length)) return Read::kFailed;
    if (m_devBufLen < length.Total()) return Read::kGood;
    PassOn({m_devBuf.data(), m_devBufLen});
    m_devBufLen = 0;  // no read goes past the PDU
    return Read::kGood;
} catch (const std::bad_alloc&) {
    XJModLog(4, "[CUsbipClientLinux] out of memory for a PDU of the kernel's");
    return Read::kFailed;
}

// Of the PDU being assembled; until its header is there, of the header.
bool CUsbipClientLinux::DevBufLength(UsbipPduLength& length) {
    if (m_devBufLen < sizeof(usbip_header)) return true;
    return CalcLen(UsbipHeaderOf({m_devBuf.data(), m_devBufLen}), true, false, length);
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
