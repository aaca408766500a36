// The write thread: moves PDUs from the peer to the kernel.

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
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

// So few URBs under way that the kernel waits for each reply, and few could be gathered.
constexpr std::size_t kFewUnderWay = 4;

// The kernel's largest requests are of 1 MiB, and it has some dozens of them under way: more than
// this can only wait when it has stopped reading.
constexpr unsigned long kMostWaiting = 64UL << 20;

}  // namespace

bool CUsbipClientLinux::Forward(IBuffer* message, std::string_view bytes) try {
    if (!Accepts(bytes.size())) return true;
    CForwarded forwarded{message, bytes};
    const std::size_t under_way = m_outstanding.Submitted();
    const bool alone = (under_way > 0 && under_way <= kFewUnderWay) || bytes.size() >= kGathered;
    if (alone && NothingWaits()) {
        m_writer.Enter();  // until something waits, which only this thread brings about
        if (WriteAtOnce(forwarded)) return true;
    }
    bool first = false;
    {
        CLockGuard guard(m_recvLock);
        if (!m_bTaking) return true;
        first = m_recvList.empty();
        m_recvBytes += forwarded.bytes.size();
        m_recvList.push_back(std::move(forwarded));
        ++m_nWaiting;
    }
    // Whoever waits for more has been woken by the first; and not into a lock that is held.
    if (first) m_recvSem.Post();
    return true;
} catch (const std::bad_alloc&) {
    XJModLog(4, "[CUsbipClientLinux] out of memory for a PDU of the peer's");
    EndDevice();  // the kernel may have a part of it
    return true;
}

bool CUsbipClientLinux::NothingWaits() {
    CLockGuard guard(m_recvLock);
    return m_bTaking && m_nWaiting == 0;
}

// Spares waking the write thread for what the kernel's end has room for. False: what is left is the
// write thread's, and so is any failure.
bool CUsbipClientLinux::WriteAtOnce(CForwarded& forwarded) {
    Check(forwarded);  // before the visit, which nothing thrown may leave open
    if (forwarded.verdict != Verdict::kGood || !m_clientEnd.Visit()) return false;
    const ssize_t written = send(m_clientEnd.Get(), forwarded.bytes.data(), forwarded.bytes.size(),
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
    m_clientEnd.Leave(CSharedEnd::kVisitor);
    forwarded.bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    return forwarded.bytes.empty();
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
    m_writer.Enter();
    const bool again = WriteThreadLoop();
    if (!again) {
        XJModLog(1, "[CUsbipClientLinux] %d write thread prepare quit", static_cast<int>(m_devId));
        m_taken.clear();
        StopTaking();
        m_clientEnd.Leave(CSharedEnd::kWriter);
    }
    return again;
}

void CUsbipClientLinux::StartTaking() {
    CLockGuard guard(m_recvLock);
    m_bTaking = true;
}

// Nobody will take what waits, nor what comes.
void CUsbipClientLinux::StopTaking() {
    CLockGuard guard(m_recvLock);
    m_bTaking = false;
    m_nWaiting = 0;
    m_recvBytes = 0;
    m_recvList.clear();
}

// One write for as many forwards as there are, up to the first that is not in order.
bool CUsbipClientLinux::WriteThreadLoop() try {
    if (m_bQuit) return false;
    if (m_taken.empty() && !WaitForForwards()) return !m_bQuit;

    std::array<iovec, kPieces> pieces;
    std::size_t count = 0;
    unsigned long size = 0;
    Verdict verdict = Verdict::kGood;
    while (count < std::min(m_taken.size(), kPieces) && size < kGathered &&
           verdict == Verdict::kGood) {
        CForwarded& next = m_taken[count];
        size += next.bytes.size();
        if (next.verdict == Verdict::kUnchecked) Check(next);
        verdict = next.verdict;
        pieces[count++] = {const_cast<char*>(next.bytes.data()), next.bytes.size()};
    }
    if (!WriteDevice({pieces.data(), count})) return false;
    m_taken.erase(m_taken.begin(), m_taken.begin() + static_cast<std::ptrdiff_t>(count));
    {
        CLockGuard guard(m_recvLock);
        if (m_bTaking) {
            m_recvBytes -= size;
            m_nWaiting -= count;
        }
    }
    if (verdict == Verdict::kUnsafe) EndDevice();
    return verdict == Verdict::kGood;
} catch (const std::bad_alloc&) {
    XJModLog(4, "[CUsbipClientLinux] out of memory for a PDU of the peer's");
    return false;
}

// A peer whose first PDU is none is not understood any more. What is none behind whole ones is left
// out and does no harm.
void CUsbipClientLinux::Check(CForwarded& forwarded) {
    std::size_t good = 0;
    do {
        std::size_t size = 0;
        forwarded.verdict = CheckNetRecv(forwarded.bytes.substr(good), good == 0, size);
        good += size;
    } while (forwarded.verdict == Verdict::kGood && good < forwarded.bytes.size());
    if (forwarded.verdict == Verdict::kNotWhole && good > 0) forwarded.verdict = Verdict::kGood;
    forwarded.bytes = forwarded.bytes.substr(0, good);
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
