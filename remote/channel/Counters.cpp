#include "remote/channel/Counters.h"

#include <cerrno>

#include "wire/UsbipPdu.h"

namespace remote {

void Counters::CountCommand(const Command& command, bool was_compressed) {
    CountForward(was_compressed);
    if (command.unlinks) {
        ++unlinks;
    } else {
        ++(command.in ? urbs_in : urbs_out);
        bytes_out += command.data.size() + command.packets.size();
    }
}

void Counters::CountReply(ByteView pdu) {
    const auto header = LoadRaw<usbip_header>(pdu.data());
    if (be32toh(header.command) != USBIP_RET_SUBMIT) return;
    bytes_in += pdu.size() - sizeof header;
    if (be32toh(header.u.ret_submit.status) == static_cast<std::uint32_t>(-EPIPE)) ++stalls;
}

std::string Counters::Text() const {
    return "URBs in " + std::to_string(urbs_in) + " out " + std::to_string(urbs_out) +
           ", bytes in " + std::to_string(bytes_in) + " out " + std::to_string(bytes_out) +
           ", unlinks " + std::to_string(unlinks) + ", stalls " + std::to_string(stalls) +
           ", messages compressed " + std::to_string(compressed) + " plain " +
           std::to_string(plain);
}

}  // namespace remote
