// What USB/IP servers send, for tests that play one.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>

#include "remote/Bytes.h"
#include "wire/UsbipPdu.h"
#include "wire/UsbipServer.h"

namespace remote::test {

template <typename T>
Bytes Raw(const T& record) {
    Bytes bytes(sizeof record);
    StoreRaw(bytes.data(), record);
    return bytes;
}

inline Bytes Joined(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

struct RetSubmit {
    std::uint32_t seqnum = 0;
    int status = 0;
    std::uint32_t actual = 0;
    std::uint32_t packets = 0;
    std::size_t data = 0;  // bytes behind the header, descriptors included

    operator Bytes() const {  // NOLINT(google-explicit-constructor): reads as the reply it makes
        usbip_header header{};
        header.command = htobe32(USBIP_RET_SUBMIT);
        header.seqnum = htobe32(seqnum);
        header.u.ret_submit.status = htobe32(static_cast<std::uint32_t>(status));
        header.u.ret_submit.actual_length = htobe32(actual);
        header.u.ret_submit.number_of_packets = htobe32(packets);
        Bytes pdu = Raw(header);
        pdu.resize(pdu.size() + data, 0xA5);
        return pdu;
    }
};

// A keyboard at bus 3, device 9, full speed.
inline usbip_op_import_reply ImportReply(const std::string& busid) {
    usbip_op_import_reply reply{};
    reply.head = {htobe16(kUsbipServerVersion), htobe16(OP_REP_IMPORT), 0};
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
