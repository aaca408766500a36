// What USB/IP servers send, for tests that play one.
#pragma once

#include <string>
#include <string_view>

#include "remote/Bytes.h"
#include "wire/UsbipServer.h"

namespace remote::test {

inline ByteView View(std::string_view bytes) {
    return {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
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

inline usbip_op_devlist_reply ListReply(std::uint32_t devices) {
    return {{htobe16(kUsbipServerVersion), htobe16(OP_REP_DEVLIST), 0}, htobe32(devices)};
}

}  // namespace remote::test
