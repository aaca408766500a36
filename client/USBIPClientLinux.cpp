#include "client/USBIPClientLinux.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "module/runtime/XJModLog.h"

namespace {

constexpr std::size_t kDevBufSize = 40960;  // holds all but the largest transfers at once

// Two upper-case digits a byte, a blank between groups of `group` bytes.
std::string ToHex(const unsigned char* data, int length, int group) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (int i = 0; i < length; ++i) {
        if (i > 0 && i % group == 0) text += ' ';
        text += kDigits[data[i] >> 4];
        text += kDigits[data[i] & 0x0F];
    }
    return text;
}

std::string header_hex(const usbip_header& header) {
    return ToHex(reinterpret_cast<const unsigned char*>(&header), sizeof header, 4);
}

// The system shows at most 15 bytes of a name: the longest device ids are left out.
std::string kernel_name(const std::string& what, unsigned int devid) {
    const std::string name = what + '-' + std::to_string(devid);
    return name.size() <= 15 ? name : what;
}

}  // namespace

CUsbipClientLinux::~CUsbipClientLinux() {
    CUsbipClientLinux::Stop();
}

bool CUsbipClientLinux::Run() {
    CLockGuard guard(m_runLock);
    if (m_pWorkThread) return true;
    m_workThread.Enter();  // there is none yet
    m_bQuit = false;
    m_devBuf.resize(kDevBufSize);
    m_devBufLen = 0;
    m_outstanding.Clear();
    int ends[2];
    // A child that the host starts must not keep a device's connection open.
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        XJModLog(4, "[CUsbipClientLinux] socketpair fail, %d", errno);
        return false;
    }
    m_clientEnd.Open(ends[0]);
    m_kernelEnd = ends[1];
    StartTaking();
    // Before the one that attaches: nothing is attached that nobody could answer.
    m_pWriteThread = StartThread("write", [this] { return WriteThreadFunction(); });
    if (m_pWriteThread) {
        m_pWorkThread = StartThread("work", [this] { return WorkThreadFunction(); });
    }
    if (m_pWorkThread) return true;
    EndDevice();
    JoinThreads();
    return false;
}

bool CUsbipClientLinux::Stop() {
    // Ends a poll, read or write in progress at once, even if the kernel has stopped reading.
    EndDevice();
    CLockGuard guard(m_runLock);
    JoinThreads();
    return true;
}

// Empty, with a log line, when there can be no thread.
std::unique_ptr<CUsbipClientLinuxThread> CUsbipClientLinux::StartThread(
    const std::string& what, std::function<bool()> loop) {
    const std::string name = "usbipclientlinux-" + what;
    auto thread = std::make_unique<CUsbipClientLinuxThread>();
    thread->m_loop = std::move(loop);
    thread->SetThreadName(name.c_str());
    thread->SetKernelName(kernel_name("usbip-" + what, m_devId));
    if (thread->Run()) return thread;
    XJModLog(4, "[CUsbipClientLinux] thread %s cannot be made", name.c_str());
    return nullptr;
}

void CUsbipClientLinux::JoinThreads() {
    if (m_pWorkThread) m_pWorkThread->Stop();
    m_pWorkThread.reset();
    if (m_pWriteThread) m_pWriteThread->Stop();
    m_pWriteThread.reset();
    // A thread that never came to run has not given back what it used.
    m_workThread.Enter();  // there is none any more
    StopTaking();
    m_clientEnd.Leave(CSharedEnd::kReader | CSharedEnd::kWriter);
    CloseKernelEnd();
}

void CUsbipClientLinux::EndDevice() {
    m_bQuit = true;
    m_recvSem.Post();
    m_clientEnd.Shutdown();
}

void CUsbipClientLinux::CloseKernelEnd() {
    if (m_kernelEnd >= 0) close(m_kernelEnd);
    m_kernelEnd = -1;
}

bool CUsbipClientLinux::CalcLen(const usbip_header& header, bool fromDev, bool answersOut,
                                UsbipPduLength& length) {
    const char* side = fromDev ? "dev" : "net";
    const auto known = fromDev ? UsbipCommandLength(header) : UsbipReplyLength(header, answersOut);
    if (!known) {
        XJModLog(1, "[CUsbipClientLinux] %s unkonw command 0x%x hdr %s", side,
                 be32toh(header.command), header_hex(header).c_str());
        return false;
    }
    if (!known->Acceptable()) {
        XJModLog(4, "[CUsbipClientLinux] %s PDU of %lu bytes is too long, hdr %s", side,
                 known->Total(), header_hex(header).c_str());
        return false;
    }
    length = *known;
    return true;
}
