// The write thread: moves PDUs from the peer to the kernel.

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "client/USBIPClientLinux.h"
#include "module/runtime/XJModLog.h"

namespace {

constexpr unsigned long kPopMs = 500;

// Of one write. Of small PDUs so many halve the cost of each; large ones are given back one by one,
// since memory that waits for the others would have to be faulted in anew.
constexpr std::size_t kPieces = 64;
constexpr unsigned long kGathered = 32'768;

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
    bool first = false;
    {
        CLockGuard guard(m_recvLock);
        if (!m_bTaking) return true;
        first = m_recvList.empty();
        m_recvList.push_back(buffer);
        m_recvBytes += len;
    }
    // Whoever waits for more has been woken by the first; and not into a lock that is held.
    if (first) m_recvSem.Post();
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

// Takes all that waits, if need be after waiting once. False: nothing came in time, or the client
// is stopping.
bool CUsbipClientLinux::WaitForForwards() {
    for (bool waited = false; !m_bQuit; waited = true) {
        {
            CLockGuard guard(m_recvLock);
            m_taken.swap(m_recvList);
        }
        if (!m_taken.empty()) return true;
        if (waited) return false;
        m_recvSem.WaitFor(kPopMs);
    }
    return false;
}

bool CUsbipClientLinux::WriteThreadFunction() {
    m_writeThread.Enter();
    const bool again = WriteThreadLoop();
    if (!again) {
        XJModLog(1, "[CUsbipClientLinux] %d write thread prepare quit", static_cast<int>(m_devId));
        m_taken.clear();
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

// One write for as many forwards as there are, up to the first that is not in order.
bool CUsbipClientLinux::WriteThreadLoop() try {
    if (m_bQuit) return false;
    if (m_taken.empty() && !WaitForForwards()) return !m_bQuit;

    std::array<iovec, kPieces> pieces;
    std::size_t count = 0;
    unsigned long size = 0;
    std::size_t good = 0;
    Verdict verdict = Verdict::kGood;
    auto next = m_taken.begin();
    while (next != m_taken.end() && count < pieces.size() && size < kGathered &&
           verdict == Verdict::kGood) {
        const std::string_view bytes(static_cast<const char*>((*next)->GetPointer()),
                                     (*next)->GetSize());
        verdict = CheckForward(bytes, good);
        pieces[count++] = {(*next)->GetPointer(), good};
        size += bytes.size();
        ++next;
    }
    if (!WriteDevice({pieces.data(), count})) return false;
    m_taken.erase(m_taken.begin(), next);
    {
        CLockGuard guard(m_recvLock);
        if (m_bTaking) m_recvBytes -= size;
    }
    if (verdict == Verdict::kUnsafe) EndDevice();
    // A peer whose first PDU is none is not understood any more. What is none behind whole ones is
    // left out and does no harm.
    return good > 0 && verdict != Verdict::kUnsafe;
} catch (const std::bad_alloc&) {
    XJModLog(4, "[CUsbipClientLinux] out of memory for a PDU of the peer's");
    return false;
}

// How the first PDU is that is not in order, if any; `good` bytes before it may be written.
CUsbipClientLinux::Verdict CUsbipClientLinux::CheckForward(std::string_view bytes,
                                                           std::size_t& good) {
    good = 0;
    Verdict verdict;
    do {
        std::size_t size = 0;
        verdict = CheckNetRecv(bytes.substr(good), good == 0, size);
        good += size;
    } while (verdict == Verdict::kGood && good < bytes.size());
    return verdict;
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

bool CUsbipClientLinux::WriteDevice(std::span<iovec> pieces) {
    while (!pieces.empty()) {
        if (pieces.front().iov_len == 0) {
            pieces = pieces.subspan(1);
            continue;
        }
        // Not writev(): the kernel may have let go of its end, and the host must get no SIGPIPE.
        msghdr message{};
        message.msg_iov = pieces.data();
        message.msg_iovlen = pieces.size();
        const ssize_t written = sendmsg(m_clientEnd.Get(), &message, MSG_NOSIGNAL);
        const bool failed = written < 0 && errno != EINTR;
        if (m_bQuit) return false;  // Stop has shut the end: no failure
        if (failed) {
            XJModLog(4, "[CUsbipClientLinux] write device fail");
            EndDevice();
            return false;
        }
        auto left = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
        for (iovec& piece : pieces) {
            const std::size_t part = std::min(left, piece.iov_len);
            piece.iov_base = static_cast<char*>(piece.iov_base) + part;
            piece.iov_len -= part;
            left -= part;
        }
    }
    return true;
}
