#include "kit/CapturedUrbs.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace xj_usbip {
namespace {

constexpr std::size_t kMostRemembered = 4096;
constexpr std::uint8_t kIn = 0x80;  // in an endpoint's address

// Numbers are the same for all devices of a kernel, but there may be several remote sides.
std::uint64_t id_of(const RemoteDevice& device, std::uint32_t seqnum) {
    return std::uint64_t{device.id} << 32 | seqnum;
}

std::uint8_t transfer_of(const usbip_header& header) {
    if (UsbipIsoBytes(header.u.cmd_submit.number_of_packets) != 0) return kIsochronous;
    if (header.ep == 0) return kControl;
    return header.u.cmd_submit.interval != 0 ? kInterrupt : kBulk;
}

UsbmonPacket stamped(const RemoteDevice& device, std::uint32_t seqnum) {
    UsbmonPacket packet;
    packet.id = id_of(device, seqnum);
    packet.bus = static_cast<std::uint16_t>(device.kernel_id >> 16);
    packet.device = static_cast<std::uint8_t>(device.kernel_id);
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    packet.seconds = now.tv_sec;
    packet.microseconds = static_cast<std::int32_t>(now.tv_nsec / 1000);
    return packet;
}

// The descriptors of an isochronous PDU that is all there, in usbmon's form. The packets of a reply
// stand one behind the other, whatever their places in the URB.
std::string iso_descriptors(std::string_view pdu, const UsbipPduLength& length, bool packed) {
    std::string result;
    std::uint32_t at = 0;
    for (std::uint64_t i = 0; i < length.iso / sizeof(usbip_iso_packet_descriptor); ++i) {
        usbip_iso_packet_descriptor raw{};
        std::memcpy(&raw, pdu.data() + sizeof(usbip_header) + length.data + i * sizeof raw,
                    sizeof raw);
        const std::uint32_t bytes = be32toh(packed ? raw.actual_length : raw.length);
        const UsbmonIsoDescriptor one{static_cast<std::int32_t>(be32toh(raw.status)),
                                      packed ? at : be32toh(raw.offset), bytes, 0};
        at += bytes;
        result.append(reinterpret_cast<const char*>(&one), sizeof one);
    }
    return result;
}

std::string packet_of(UsbmonPacket packet, const TappedPdu& pdu, const UsbipPduLength& length,
                      bool packed) {
    std::string bytes;
    if (length.iso != 0 && pdu.bytes.size() == pdu.size && length.Total() == pdu.size) {
        bytes = iso_descriptors(pdu.bytes, length, packed);
        packet.descriptors = static_cast<std::uint32_t>(bytes.size() / sizeof(UsbmonIsoDescriptor));
    }
    if (length.data != 0) {
        packet.data_flag = 0;
        bytes += pdu.bytes.substr(sizeof(usbip_header)).substr(0, length.data);
    }
    packet.captured = static_cast<std::uint32_t>(bytes.size());
    std::string result;
    AppendPacket(result, packet, bytes, pdu.size - sizeof(usbip_header));
    return result;
}

}  // namespace

void Capture::Urbs::Remember(std::uint64_t id, const Submitted& submitted) {
    const std::lock_guard lock(mutex_);
    if (order_.size() == kMostRemembered) {
        submitted_.erase(order_.front());
        order_.pop_front();
    }
    order_.push_back(id);
    submitted_[id] = submitted;
}

bool Capture::Urbs::Take(std::uint64_t id, Submitted& submitted) {
    const std::lock_guard lock(mutex_);
    const auto found = submitted_.find(id);
    if (found == submitted_.end()) return false;
    submitted = found->second;
    submitted_.erase(found);
    return true;
}

std::string Capture::Urbs::OnSubmit(const TappedPdu& pdu, const usbip_header& header,
                                    UsbmonPacket packet) {
    const auto& urb = header.u.cmd_submit;
    const bool in = header.direction != USBIP_DIR_OUT;
    packet.transfer = transfer_of(header);
    packet.endpoint = static_cast<std::uint8_t>((be32toh(header.ep) & 0xF) | (in ? kIn : 0));
    packet.status = -EINPROGRESS;
    packet.length = be32toh(urb.transfer_buffer_length);
    packet.interval = static_cast<std::int32_t>(be32toh(urb.interval));
    packet.start_frame = static_cast<std::int32_t>(be32toh(urb.start_frame));
    packet.flags = be32toh(urb.transfer_flags);
    packet.data_flag = in ? '<' : '=';
    if (packet.transfer == kControl) {
        packet.setup_flag = 0;
        std::memcpy(packet.setup, urb.setup, sizeof packet.setup);
    } else if (packet.transfer == kIsochronous) {
        packet.iso = {0, static_cast<std::int32_t>(be32toh(urb.number_of_packets))};
    }
    Remember(packet.id, {packet});
    return packet_of(packet, pdu, UsbipCmdSubmitLength(header), false);
}

std::string Capture::Urbs::OnReply(const TappedPdu& pdu, const usbip_header& header,
                                   UsbmonPacket packet) {
    Submitted submitted;
    if (!Take(packet.id, submitted)) return {};
    const auto& urb = header.u.ret_submit;
    const bool in = (submitted.packet.endpoint & kIn) != 0;
    packet.event = 'C';
    packet.transfer = submitted.packet.transfer;
    packet.endpoint = submitted.packet.endpoint;
    packet.interval = submitted.packet.interval;
    packet.flags = submitted.packet.flags;
    packet.status = static_cast<std::int32_t>(be32toh(urb.status));
    packet.length = be32toh(urb.actual_length);
    packet.data_flag = in ? '=' : '>';
    if (packet.transfer == kIsochronous) {
        packet.start_frame = static_cast<std::int32_t>(be32toh(urb.start_frame));
        packet.iso = {static_cast<std::int32_t>(be32toh(urb.error_count)),
                      static_cast<std::int32_t>(be32toh(urb.number_of_packets))};
    }
    return packet_of(packet, pdu, UsbipRetSubmitLength(header, !in), true);
}

// An URB that was taken back in time gets no reply of its own.
std::string Capture::Urbs::OnUnlinked(const usbip_header& header, UsbmonPacket packet) {
    Submitted unlink;
    Submitted submitted;
    if (!Take(packet.id, unlink) || header.u.ret_unlink.status == 0 ||
        !Take(unlink.unlinks, submitted)) {
        return {};
    }
    submitted.packet.event = 'C';
    submitted.packet.seconds = packet.seconds;
    submitted.packet.microseconds = packet.microseconds;
    submitted.packet.status = static_cast<std::int32_t>(be32toh(header.u.ret_unlink.status));
    submitted.packet.length = 0;
    submitted.packet.setup_flag = '-';
    submitted.packet.data_flag = (submitted.packet.endpoint & kIn) != 0 ? '=' : '>';
    std::string result;
    AppendPacket(result, submitted.packet, {}, 0);
    return result;
}

std::string Capture::Urbs::Packet(const TappedPdu& pdu) {
    const usbip_header header = UsbipHeaderOf(pdu.bytes);
    const UsbmonPacket packet = stamped(pdu.device, be32toh(header.seqnum));
    const std::uint32_t command = be32toh(header.command);
    if (pdu.to_remote && command == USBIP_CMD_SUBMIT) return OnSubmit(pdu, header, packet);
    if (pdu.to_remote && command == USBIP_CMD_UNLINK) {
        Remember(packet.id, {packet, id_of(pdu.device, be32toh(header.u.cmd_unlink.seqnum))});
        return {};
    }
    if (!pdu.to_remote && command == USBIP_RET_SUBMIT) return OnReply(pdu, header, packet);
    if (!pdu.to_remote && command == USBIP_RET_UNLINK) return OnUnlinked(header, packet);
    return {};
}

}  // namespace xj_usbip
