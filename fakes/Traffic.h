// PDUs whose bytes follow from their number, so that a lost, doubled, cut or shifted one shows.
#pragma once

#include <zlib.h>

#include "fakes/Messages.h"

// Zlib makes a body smaller, but never to nothing.
inline std::string Body(std::uint32_t seqnum, std::size_t size) {
    std::string body;
    for (auto x = seqnum * 2654435761U; body.size() < size; x = x * 1664525U + 1013904223U)
        body.append(5, static_cast<char>('a' + x / 0x01000000 % 32));
    body.resize(size);
    return body;
}

constexpr std::uint32_t kPeerSeq = 0x80000000;  // from here on: never a number of the kernel's

// `size` is that of the whole PDU, header included.
inline std::string KernelPdu(std::uint32_t seqnum, std::size_t size) {
    return SubmitOut(seqnum, Body(seqnum, size - sizeof(usbip_header)));
}
inline std::string PeerPdu(std::uint32_t seqnum, std::size_t size) {
    const std::string body = Body(seqnum, size - sizeof(usbip_header));
    return SubmitReply(seqnum, static_cast<std::uint32_t>(body.size()), body);
}

// What zlib's one-call `operation` makes of `data`; empty when it fails or needs more room.
inline std::string Zlib(auto operation, std::string_view data, uLongf room) {
    std::string result(room, '\0');
    const int status = operation(reinterpret_cast<Bytef*>(result.data()), &room,
                                 reinterpret_cast<const Bytef*>(data.data()), data.size());
    return status == Z_OK ? result.substr(0, room) : std::string();
}
inline std::string Deflated(std::string_view data) {
    return Zlib(compress, data, compressBound(data.size()));
}

inline std::string CompressedForward(std::uint32_t devid, std::string_view pdu) {
    return ForwardMessage(devid, Deflated(pdu), static_cast<std::uint32_t>(pdu.size()));
}
// The PDU that a forward message carries; not a whole one when the message is not in order.
inline std::string CarriedPdu(std::string_view message) {
    const auto forward = Parse<usbip_forward>(message);
    if (message.size() != forward.datasize + kForwardOverhead) return {};
    const std::string_view data = message.substr(sizeof forward, forward.datasize);
    return forward.rawsize == 0 ? std::string(data) : Zlib(uncompress, data, forward.rawsize);
}
