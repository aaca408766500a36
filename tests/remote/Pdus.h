// What travels, as far as fakes/ does not make it.
#pragma once

#include <gtest/gtest.h>

#include "fakes/Messages.h"
#include "fakes/Traffic.h"
#include "remote/device/Command.h"
#include "remote/io/Bytes.h"
#include "wire/UsbipServer.h"

namespace remote::test {

inline const std::string kMegabyte(1 << 20, 'x');

inline ByteView View(std::string_view bytes) {
    return {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
}

// A command that is as it should be; borrows `pdu`.
inline Command Decoded(std::string_view pdu) {
    Command command;
    EXPECT_EQ(DecodeCommand(View(pdu), command), "");
    return command;
}

// `text` says `what`.
inline void ExpectIn(const std::string& text, const std::string& what) {
    EXPECT_NE(text.find(what), std::string::npos) << "no '" << what << "' in '" << text << "'";
}

// Offsets in PDUs.
inline constexpr std::size_t kEndpoint = offsetof(usbip_header, ep);
inline constexpr std::size_t kStatus = offsetof(usbip_header, u.ret_submit.status);
inline constexpr std::size_t kTarget = offsetof(usbip_header, u.cmd_unlink.seqnum);
inline constexpr std::size_t kPackets = offsetof(usbip_header, u.cmd_submit.number_of_packets);

// With another value in a field of 32 bits, big-endian.
inline std::string With(std::size_t offset, std::int64_t value, std::string pdu) {
    return pdu.replace(offset, 4, ::Bytes(htobe32(static_cast<std::uint32_t>(value))));
}

// A keyboard at bus 3, device 9, full speed.
inline usbip_op_import_reply ImportReply(const std::string& busid) {
    usbip_op_import_reply reply{{htobe16(kUsbipServerVersion), htobe16(OP_REP_IMPORT), 0}, {}};
    busid.copy(reply.device.busid, sizeof reply.device.busid - 1);
    reply.device.busnum = htobe32(3);
    reply.device.devnum = htobe32(9);
    reply.device.speed = htobe32(2);
    reply.device.id_vendor = htobe16(0x046D);
    reply.device.id_product = htobe16(0xC31C);
    return reply;
}

}  // namespace remote::test
