// The write thread: moves PDUs from the peer to the kernel.

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "client/USBIPClientLinux.h"
#include "module/runtime/XJModLog.h"

namespace {

constexpr int kPopMs = 500;

}  // namespace

bool CUsbipClientLinux::Forward(const char* data, unsigned long len) {
    const CRefObj<IBuffer> buffer = m_pAllocator->GetFreeBuffer(len);
    if (!buffer || buffer->SetSize(len) != len) {
        XJModLog(4, "[CUsbipClientLinux] no buffer for a PDU of %lu bytes, dropped", len);
        return true;
    }
    if (len > 0) std::memcpy(buffer->GetPointer(), data, len);
    CLockGuard guard(m_recvLock);
    m_recvList.push_back(buffer);
    m_recvSem.Post();
    return true;
}

// Waits at most once. Empty: nothing came in `timeout` ms, or the client is stopping.
CRefObj<IBuffer> CUsbipClientLinux::PopRecvBuf(int timeout) {
    if (m_bQuit) return {};
    for (bool waited = false;; waited = true) {
        {
            CLockGuard guard(m_recvLock);
            if (!m_recvList.empty()) {
                CRefObj<IBuffer> buffer = std::move(m_recvList.front());
                m_recvList.pop_front();
                m_recvSem.TryWait();  // its post, so that a burst does not leave idle wake-ups
                return buffer;
            }
        }
        if (waited || timeout == 0) return {};
        m_recvSem.WaitFor(static_cast<unsigned long>(timeout));
        if (m_bQuit) return {};
    }
}

bool CUsbipClientLinux::WriteThreadFunction() {
    m_writeThread.Enter();
    const bool again = WriteThreadLoop();
    if (!again) {
        XJModLog(1, "[CUsbipClientLinux] %d write thread prepare quit", static_cast<int>(m_devId));
        m_clientEnd.Leave();
    }
    return again;
}

bool CUsbipClientLinux::WriteThreadLoop() try {
    if (m_bQuit) return false;
    const CRefObj<IBuffer> buffer = PopRecvBuf(kPopMs);
    if (!buffer) return true;
    if (m_bQuit) return false;

    const unsigned long size = buffer->GetSize();
    if (size < sizeof(usbip_header)) {
        XJModLog(4, "[CUsbipClientLinux] CheckNetRecv invalid packet");
        return false;
    }
    const auto* header = static_cast<const usbip_header*>(buffer->GetPointer());
    bool isOut = false;
    int dataLen = 0;
    int isoLen = 0;
    int total = 0;
    if (!CalcLen(header, sizeof *header, false, isOut, dataLen, isoLen, total)) return false;
    if (isOut) {
        CLockGuard guard(m_seqLock);
        m_outSeqs.erase(be32toh(header->seqnum));
    }
    if (size < static_cast<unsigned long>(total)) {
        XJModLog(4, "[CUsbipClientLinux] CheckNetRecv invalid");
        return false;
    }
    return WriteDevice(static_cast<const char*>(buffer->GetPointer()), size);
} catch (const std::bad_alloc&) {
    XJModLog(4, "[CUsbipClientLinux] out of memory for a PDU of the peer's");
    return false;
}

bool CUsbipClientLinux::WriteDevice(const char* data, unsigned long len) {
    while (len > 0) {
        // Not write(): the kernel may have let go of its end, and the host must get no SIGPIPE.
        const ssize_t written = send(m_clientEnd.Get(), data, len, MSG_NOSIGNAL);
        if (written < 0 && errno != EINTR) {
            XJModLog(4, "[CUsbipClientLinux] write device fail");
            m_bQuit = true;
            return false;
        }
        if (m_bQuit) return false;
        if (written > 0) {
            data += written;
            len -= static_cast<unsigned long>(written);
        }
    }
    return true;
}
