#include "remote/device/Reply.h"

#include <utility>

#include "wire/UsbipPdu.h"

namespace remote {
namespace {

std::uint32_t big_endian(std::size_t value) {
    return htobe32(static_cast<std::uint32_t>(value));
}

usbip_header header_of(UsbipCommand command, std::uint32_t seqnum) {
    usbip_header header{};
    header.command = htobe32(command);
    header.seqnum = htobe32(seqnum);
    return header;
}

}  // namespace

Bytes RoomForReply() {
    return Bytes(sizeof(usbip_header));
}

Bytes RetSubmit(const SubmitResult& result, Bytes reply) {
    usbip_header header = header_of(USBIP_RET_SUBMIT, result.seqnum);
    header.u.ret_submit.status = htobe32(static_cast<std::uint32_t>(result.status));
    header.u.ret_submit.actual_length = big_endian(result.actual_length);
    header.u.ret_submit.number_of_packets = big_endian(result.packets);
    StoreRaw(reply.data(), header);
    return reply;
}

Bytes RetUnlink(std::uint32_t seqnum, int status) {
    usbip_header header = header_of(USBIP_RET_UNLINK, seqnum);
    header.u.ret_unlink.status = htobe32(static_cast<std::uint32_t>(status));
    return ToBytes(header);
}

}  // namespace remote
