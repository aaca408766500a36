#include "remote/device/Command.h"

#include <algorithm>

#include "wire/UsbipPdu.h"

namespace remote {

std::size_t Command::PacketCount() const {
    return packets.size() / sizeof(usbip_iso_packet_descriptor);
}

std::string DecodeCommand(ByteView pdu, Command& command) {
    if (pdu.size() < sizeof(usbip_header)) {
        return "PDU of " + std::to_string(pdu.size()) + " bytes is shorter than its header";
    }
    const auto header = LoadRaw<usbip_header>(pdu.data());
    const std::uint32_t code = be32toh(header.command);
    if (code != USBIP_CMD_SUBMIT && code != USBIP_CMD_UNLINK) {
        return "PDU with unknown command " + std::to_string(code);
    }
    const bool submit = code == USBIP_CMD_SUBMIT;
    const UsbipPduLength length = submit ? UsbipCmdSubmitLength(header) : UsbipPduLength{};
    if (!length.Acceptable() || length.Total() != pdu.size()) {
        return "PDU of " + std::to_string(pdu.size()) + " bytes announces " +
               std::to_string(length.Total());
    }
    command = {};
    command.pdu = pdu;
    command.seqnum = be32toh(header.seqnum);
    command.devid = be32toh(header.devid);
    if (!submit) {
        command.unlinks = be32toh(header.u.cmd_unlink.seqnum);
        return {};
    }
    const auto& urb = header.u.cmd_submit;
    command.in = header.direction != USBIP_DIR_OUT;
    command.endpoint = be32toh(header.ep);
    command.transfer_flags = be32toh(urb.transfer_flags);
    command.length = be32toh(urb.transfer_buffer_length);
    std::copy_n(urb.setup, command.setup.size(), command.setup.begin());
    command.data = pdu.subspan(sizeof header, length.data);
    command.packets = pdu.last(length.iso);
    return {};
}

}  // namespace remote
