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

// The kernel's largest requests are of 1 MiB, and it has some dozens of them under way: more than
// this can only wait when it has stopped reading.
constexpr unsigned long kMostWaiting = 64UL << 20;

}  // namespace

bool CUsbipClientLinux::Forward(const char* data, unsigned long len) {
    if (!Accepts(len)) return true;
    const CRefObj<IBuffer> buffer = m_pAllocator->GetFreeBuffer(len);
    if (!buffer || buffer->SetSize(len) != len) {
        XJModLog(4, "[CUsbipClientLinux] no buffer for a PDU of %lu bytes, dropped", len);
        return true;
    }
    if (len > 0) std::memcpy(buffer->GetPointer(), data, len);
    CLockGuard guard(m_recvLock);
    if (!m_bTaking) return true;
    m_recvList.push_back(buffer);
    m_recvBytes += len;
    m_recvSem.Post();
    return true;
}

bool CUsbipClientLinux::Accepts(unsigned long len) {
    {
        CLockGuard guard(m_recvLock);
        if (!m_bTaking) return false;
        // A single one may be larger.
        if (m_recvBytes == 0) return true;
        if (m_recvBytes <= kMostWaiting && len <= kMostWaiting - m_recvBytes) return true;
    }
    XJModLog(4, "[CUsbipClientLinux] %d more than %lu bytes wait for the kernel, device ends",
             static_cast<int>(m_devId), kMostWaiting);
    EndDevice();
    StopTaking();
    return false;
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
        StopTaking();
        m_clientEnd.Leave();
    }
    return again;
}

void CUsbipClientLinux::StartTaking() {
    CLockGuard guard(m_recvLock);
    m_bTaking = true;
}

// Nobody will take what waits, nor what comes.
void CUsbipClientLinux::StopTaking() {
    std::list<CRefObj<IBuffer>> dropped;
    CLockGuard guard(m_recvLock);
    m_bTaking = false;
    m_recvBytes = 0;
    dropped.swap(m_recvList);
}

bool CUsbipClientLinux::WriteThreadLoop() try {
    if (m_bQuit) return false;
    const CRefObj<IBuffer> buffer = PopRecvBuf(kPopMs);
    if (!buffer) return true;
    if (m_bQuit) return false;

    const std::string_view bytes(static_cast<const char*>(buffer->GetPointer()), buffer->GetSize());
    std::size_t good = 0;
    Verdict verdict;
    do {
        std::size_t size = 0;
        verdict = CheckNetRecv(bytes.substr(good), good == 0, size);
        good += size;
    } while (verdict == Verdict::kGood && good < bytes.size());
    if (!WriteDevice(bytes.data(), good)) return false;
    {
        CLockGuard guard(m_recvLock);
        if (m_bTaking) m_recvBytes -= bytes.size();
    }
    if (verdict == Verdict::kUnsafe) EndDevice();
    // A peer whose first PDU is none is not understood any more. What is none behind whole ones is
    // left out and does no harm.
    return good > 0 && verdict != Verdict::kUnsafe;
} catch (const std::bad_alloc&) {
    XJModLog(4, "[CUsbipClientLinux] out of memory for a PDU of the peer's");
    return false;
}

CUsbipClientLinux::Verdict CUsbipClientLinux::CheckNetRecv(std::string_view bytes, bool first,
                                                           std::size_t& size) {
    const auto invalid = [](Verdict verdict, const char* what = "") {
        XJModLog(4, "[CUsbipClientLinux] CheckNetRecv invalid%s", what);
        return verdict;
    };
    const usbip_header header = UsbipHeaderOf(bytes);
    if (bytes.size() < sizeof header) {
        return invalid(Verdict::kNotWhole, first ? " packet" : "");
    }
    const std::uint32_t seqnum = be32toh(header.seqnum);
    const bool submit = be32toh(header.command) == USBIP_RET_SUBMIT;

    UsbipPduLength length;
    if (!CalcLen(header, false, submit && m_outstanding.IsOut(seqnum), length)) {
        return first ? Verdict::kNotWhole : invalid(Verdict::kNotWhole);
    }
    if (bytes.size() < length.Total()) return invalid(Verdict::kNotWhole);
    if (submit) {
        const auto command = m_outstanding.TakeSubmit(seqnum);
        const std::string_view reply = bytes.substr(0, length.Total());
        if (command ? UsbipLieIn(command->View(), reply) : UsbipLieInStray(reply)) {
            return invalid(Verdict::kUnsafe);
        }
    } else {
        m_outstanding.TakeUnlink(seqnum, header.u.ret_unlink.status != 0);
    }
    size = length.Total();
    return Verdict::kGood;
}

bool CUsbipClientLinux::WriteDevice(const char* data, unsigned long len) {
    while (len > 0) {
        // Not write(): the kernel may have let go of its end, and the host must get no SIGPIPE.
        const ssize_t written = send(m_clientEnd.Get(), data, len, MSG_NOSIGNAL);
        const bool failed = written < 0 && errno != EINTR;
        if (m_bQuit) return false;  // Stop has shut the end: no failure
        if (failed) {
            XJModLog(4, "[CUsbipClientLinux] write device fail");
            EndDevice();
            return false;
        }
        if (written > 0) {
            data += written;
            len -= static_cast<unsigned long>(written);
        }
    }
    return true;
}
