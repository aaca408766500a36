// Builders for what travels: channel messages (as the remote side sends them) and USB/IP PDUs.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "wire/ChannelMessages.h"
#include "wire/UsbipPdu.h"

template <typename T>
std::string Bytes(const T& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

// "0C 00 FF" as bytes.
inline std::string FromHex(std::string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 3)
        bytes.push_back(static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
    return bytes;
}

// A record read from the start of received bytes; zero where the bytes end early.
template <typename T>
T Parse(std::string_view bytes) {
    T record{};
    std::memcpy(&record, bytes.data(), std::min(sizeof record, bytes.size()));
    return record;
}

// --- channel messages ---

// A two-level message whose lengths fit its body.
inline std::string Message(int inner_type, std::string_view body) {
    const auto type = static_cast<UsbipMessageType>(inner_type);
    return Bytes(MakeMessageHead(type, sizeof(usbip_message_head) + body.size())) +
           std::string(body);
}

inline std::string VersionRequest(std::uint8_t flags) {
    return Message(kUsbipVersionReq, std::string{static_cast<char>(flags), 0, 0, 0});
}

inline std::string VersionResponse() {
    return Message(kUsbipVersionRsp, Bytes(kUsbipProtocolVersion));
}

inline _USBIP_DEV DeviceInfo(std::uint32_t speed = 3) {
    return {"disk", {}, {}, {}, /*busid=*/1, /*portid=*/4, speed, 0x1D6B, 0x0104, {}};
}

inline std::string MapMessage(std::uint32_t devid, const _USBIP_DEV& dev = DeviceInfo()) {
    return Message(kUsbipDevMap, Bytes(devid) + Bytes(dev));
}

inline std::string UnmapMessage(std::uint32_t devid) {
    return Message(kUsbipDevUnmap, Bytes(devid));
}

inline std::string ForwardMessage(std::uint32_t devid, std::string_view data,
                                  std::uint32_t rawsize = 0) {
    const auto datasize = static_cast<std::uint32_t>(data.size());
    return Message(kUsbipForward, Bytes(devid) + Bytes(datasize) + Bytes(rawsize) +
                                      std::string(data) + std::string(kForwardFiller, '\0'));
}

// --- PDUs ---

inline usbip_header PduHeader(std::uint32_t command, std::uint32_t seqnum) {
    usbip_header header{};
    header.command = htobe32(command);
    header.seqnum = htobe32(seqnum);
    return header;
}

inline std::string SubmitOut(std::uint32_t seqnum, std::string_view data, std::uint32_t iso = 0) {
    usbip_header header = PduHeader(USBIP_CMD_SUBMIT, seqnum);
    header.u.cmd_submit.transfer_buffer_length = htobe32(static_cast<std::uint32_t>(data.size()));
    header.u.cmd_submit.number_of_packets = htobe32(iso);
    return Bytes(header) + std::string(data) +
           std::string(iso * sizeof(usbip_iso_packet_descriptor), 'i');
}

inline std::string SubmitIn(std::uint32_t seqnum, std::uint32_t length) {
    usbip_header header = PduHeader(USBIP_CMD_SUBMIT, seqnum);
    header.direction = htobe32(USBIP_DIR_IN);
    header.u.cmd_submit.transfer_buffer_length = htobe32(length);
    return Bytes(header);
}

inline std::string Unlink(std::uint32_t seqnum, std::uint32_t target = 0) {
    usbip_header header = PduHeader(USBIP_CMD_UNLINK, seqnum);
    header.u.cmd_unlink.seqnum = htobe32(target);
    return Bytes(header);
}

// `actual_length` as the device reports it; data follows only when an IN command is answered.
inline std::string SubmitReply(std::uint32_t seqnum, std::uint32_t actual_length,
                               std::string_view data = {}, std::uint32_t iso = 0) {
    usbip_header header = PduHeader(USBIP_RET_SUBMIT, seqnum);
    header.u.ret_submit.actual_length = htobe32(actual_length);
    header.u.ret_submit.number_of_packets = htobe32(iso);
    return Bytes(header) + std::string(data) +
           std::string(iso * sizeof(usbip_iso_packet_descriptor), '\0');
}

inline std::string UnlinkReply(std::uint32_t seqnum, int status = 0) {
    usbip_header header = PduHeader(USBIP_RET_UNLINK, seqnum);
    header.u.ret_unlink.status = htobe32(static_cast<std::uint32_t>(status));
    return Bytes(header);
}

struct IsoPacket {
    std::uint32_t offset, length, actual_length;
};

// A PDU without packets, with these.
inline std::string WithPackets(const std::string& pdu, const std::vector<IsoPacket>& packets) {
    auto header = Parse<usbip_header>(pdu);
    // At the same place in commands and replies.
    header.u.cmd_submit.number_of_packets = htobe32(static_cast<std::uint32_t>(packets.size()));
    std::string bytes = Bytes(header) + pdu.substr(sizeof header);
    for (const auto& [offset, length, actual_length] : packets)
        bytes += Bytes(usbip_iso_packet_descriptor{htobe32(offset), htobe32(length),
                                                   htobe32(actual_length), 0});
    return bytes;
}
