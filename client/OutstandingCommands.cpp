#include "client/OutstandingCommands.h"

#include <utility>

namespace {

// The kernel has well below a hundred URBs in flight for one device. More entries mean that
// replies are missing.
constexpr std::size_t kOutSeqWarning = 256;

}  // namespace

COutstandingCommands::CSubmitted::CSubmitted(const usbip_header& header, std::string_view pdu)
    : m_nPackets(0),
      m_nLength(be32toh(header.u.cmd_submit.transfer_buffer_length)),
      m_bOut(header.direction == USBIP_DIR_OUT) {
    const UsbipPduLength length = UsbipCmdSubmitLength(header);
    if (length.iso == 0) return;
    m_nPackets = static_cast<std::uint32_t>(length.iso / sizeof(usbip_iso_packet_descriptor));
    m_pPackets = std::make_unique<std::uint32_t[]>(m_nPackets);
    for (std::uint32_t i = 0; i < m_nPackets; ++i)
        m_pPackets[i] = UsbipPacketAt(pdu, length, i).length;
}

void COutstandingCommands::Clear() {
    CLockGuard guard(m_lock);
    m_submits.clear();
    m_unlinks.clear();
    m_nOut = 0;
}

bool COutstandingCommands::Record(std::string_view pdu) {
    const usbip_header header = UsbipHeaderOf(pdu);
    const std::uint32_t seqnum = be32toh(header.seqnum);
    if (be32toh(header.command) == USBIP_CMD_UNLINK) {
        CLockGuard guard(m_lock);
        m_unlinks[seqnum] = be32toh(header.u.cmd_unlink.seqnum);
        return false;
    }
    CSubmitted submitted(header, pdu);
    CLockGuard guard(m_lock);
    const bool many = submitted.IsOut() && m_nOut > kOutSeqWarning;
    Forget(seqnum);  // should the kernel repeat a number, the new command is what counts
    m_nOut += submitted.IsOut() ? 1 : 0;
    m_submits.emplace(seqnum, std::move(submitted));
    return many;
}

std::size_t COutstandingCommands::Submitted() {
    CLockGuard guard(m_lock);
    return m_submits.size();
}

bool COutstandingCommands::IsOut(std::uint32_t seqnum) {
    CLockGuard guard(m_lock);
    const auto submit = m_submits.find(seqnum);
    return submit != m_submits.end() && submit->second.IsOut();
}

std::optional<COutstandingCommands::CSubmitted> COutstandingCommands::TakeSubmit(
    std::uint32_t seqnum) {
    CLockGuard guard(m_lock);
    return Forget(seqnum);
}

void COutstandingCommands::TakeUnlink(std::uint32_t seqnum, bool unlinked) {
    CLockGuard guard(m_lock);
    const auto unlink = m_unlinks.extract(seqnum);
    if (unlink && unlinked) Forget(unlink.mapped());
}

std::optional<COutstandingCommands::CSubmitted> COutstandingCommands::Forget(std::uint32_t seqnum) {
    auto submit = m_submits.extract(seqnum);
    if (!submit) return std::nullopt;
    m_nOut -= submit.mapped().IsOut() ? 1 : 0;
    return std::move(submit.mapped());
}
