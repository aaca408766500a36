// What a reply of a device may say, so that the kernel that takes it touches no memory outside the
// request. The kernel believes nearly all of it: it puts an isochronous packet wherever the reply's
// descriptor says.
#pragma once

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

#include "wire/UsbipPdu.h"

// What has to be remembered of a CMD_SUBMIT until its reply. Host byte order.
struct UsbipSubmitted {
    bool out = false;
    std::uint32_t length = 0;                // transfer_buffer_length
    std::span<const std::uint32_t> packets;  // length of each; none: not isochronous
};

// Packet `index` of a whole PDU of `length`, in host byte order.
inline usbip_iso_packet_descriptor UsbipPacketAt(std::string_view pdu, const UsbipPduLength& length,
                                                 std::size_t index) {
    usbip_iso_packet_descriptor packet{};
    pdu.copy(reinterpret_cast<char*>(&packet), sizeof packet,
             sizeof(usbip_header) + length.data + index * sizeof packet);
    return {be32toh(packet.offset), be32toh(packet.length), be32toh(packet.actual_length),
            be32toh(packet.status)};
}

// What is wrong with the whole RET_SUBMIT `reply` to `command`; null: nothing. What is only unusual
// passes: packets that are packed or left out, short ones, errors.
inline const char* UsbipLieIn(const UsbipSubmitted& command, std::string_view reply) {
    const usbip_header header = UsbipHeaderOf(reply);
    const std::uint32_t actual_length = be32toh(header.u.ret_submit.actual_length);
    if (actual_length > command.length) return "more data than the transfer holds";
    if (header.u.ret_submit.number_of_packets == kUsbipNotIso) {
        // In an isochronous URB the kernel takes the mark for a number.
        return command.packets.empty() ? nullptr : "no number of packets";
    }
    const UsbipPduLength length = UsbipRetSubmitLength(header, command.out);
    const std::size_t count = length.iso / sizeof(usbip_iso_packet_descriptor);
    if (count > command.packets.size()) return "more packets than were asked for";
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const auto packet = UsbipPacketAt(reply, length, i);
        if (packet.offset > command.length || packet.length > command.length - packet.offset ||
            packet.actual_length > command.length - packet.offset) {
            return "a packet outside the transfer";
        }
        if (packet.actual_length > command.packets[i]) return "more data than a packet holds";
        sum += packet.actual_length;
    }
    if (!command.out && count > 0 && sum != actual_length) return "packets of another sum";
    return nullptr;
}

// The same for a reply to a sequence number that is not remembered. The kernel refuses it and ends
// the device, unless it has submitted that number in the meantime: numbers can be guessed. So it
// must be harmless whatever the kernel's URB is: it has no packets, and should the kernel expect no
// data, what is data here must not be taken for the next reply.
inline const char* UsbipLieInStray(std::string_view reply) {
    const usbip_header header = UsbipHeaderOf(reply);
    if (header.u.ret_submit.number_of_packets != 0) return "packets that nobody asked for";
    const std::string_view data = reply.substr(sizeof header).substr(0, sizeof header.command);
    for (const std::uint32_t command : {USBIP_RET_SUBMIT, USBIP_RET_UNLINK}) {
        const std::uint32_t wire = htobe32(command);
        if (!data.empty() && std::memcmp(data.data(), &wire, data.size()) == 0) {
            return "a reply within a reply";
        }
    }
    return nullptr;
}
