// What the kernel has asked of a device and has no reply to yet.
#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "base/Lock.h"
#include "wire/UsbipReplyGuard.h"

// Threads: the work thread records, the write thread takes; both may do so at once.
class COutstandingCommands {
  public:
    // A CMD_SUBMIT with packet lengths of its own. There is one for each command on its way, so it
    // is small and, but for isochronous commands, allocates nothing.
    class CSubmitted {
      public:
        CSubmitted(const usbip_header& header, std::string_view pdu);
        bool IsOut() const { return m_bOut; }
        UsbipSubmitted View() const { return {m_bOut, m_nLength, {m_pPackets.get(), m_nPackets}}; }

      private:
        std::unique_ptr<std::uint32_t[]> m_pPackets;
        std::uint32_t m_nPackets;
        std::uint32_t m_nLength;
        bool m_bOut;
    };

    void Clear() EXCLUDES(m_lock);

    // A whole command. True: more OUT commands than expected were waiting before it.
    bool Record(std::string_view pdu) EXCLUDES(m_lock);

    bool IsOut(std::uint32_t seqnum) EXCLUDES(m_lock);  // an OUT command is waiting
    std::size_t Submitted() EXCLUDES(m_lock);           // how many CMD_SUBMITs are
    // Forgets the CMD_SUBMIT of this number. Empty: there is none.
    std::optional<CSubmitted> TakeSubmit(std::uint32_t seqnum) EXCLUDES(m_lock);

    // A RET_UNLINK of this number has come. With a status other than 0 the command that was to be
    // unlinked has no reply any more.
    void TakeUnlink(std::uint32_t seqnum, bool unlinked) EXCLUDES(m_lock);

  private:
    std::optional<CSubmitted> Forget(std::uint32_t seqnum) REQUIRES(m_lock);

    CMutexLock m_lock;  // innermost
    std::unordered_map<std::uint32_t, CSubmitted> m_submits GUARDED_BY(m_lock);
    std::unordered_map<std::uint32_t, std::uint32_t> m_unlinks GUARDED_BY(m_lock);  // their targets
    std::size_t m_nOut GUARDED_BY(m_lock) = 0;  // OUT commands in m_submits
};
