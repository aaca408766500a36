// PDUs of the Linux USB/IP protocol (the kernel's Documentation/usb/usbip_protocol.rst): the
// 48-byte header and the rules that tell a PDU's length from it. All fields are big-endian.
#pragma once

#include <endian.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

enum UsbipCommand : std::uint32_t {
    USBIP_CMD_SUBMIT = 1,  // kernel to device
    USBIP_CMD_UNLINK = 2,
    USBIP_RET_SUBMIT = 3,  // device to kernel
    USBIP_RET_UNLINK = 4,
};

enum UsbipDirection : std::uint32_t { USBIP_DIR_OUT = 0, USBIP_DIR_IN = 1 };

struct usbip_header {
    std::uint32_t command;
    std::uint32_t seqnum;     // pairs a reply with its command
    std::uint32_t devid;      // bus number << 16 | device number; 0 in replies
    std::uint32_t direction;  // 0 in replies
    std::uint32_t ep;         // endpoint number, without the direction; 0 in replies
    union {
        struct {
            std::uint32_t transfer_flags;
            std::uint32_t transfer_buffer_length;
            std::uint32_t start_frame;
            std::uint32_t number_of_packets;
            std::uint32_t interval;
            std::uint8_t setup[8];  // USB byte order (little-endian)
        } cmd_submit;
        struct {
            std::uint32_t status;  // negative errno of the URB
            std::uint32_t actual_length;
            std::uint32_t start_frame;
            std::uint32_t number_of_packets;
            std::uint32_t error_count;
            std::uint32_t padding[2];
        } ret_submit;
        struct {
            std::uint32_t seqnum;  // of the command to unlink
            std::uint32_t padding[6];
        } cmd_unlink;
        struct {
            std::uint32_t status;  // -ECONNRESET when unlinked, 0 when it had already completed
            std::uint32_t padding[6];
        } ret_unlink;
    } u;
};
static_assert(sizeof(usbip_header) == 48 && offsetof(usbip_header, u) == 20);

// Follows the transfer data, one for each packet of an isochronous URB.
struct usbip_iso_packet_descriptor {
    std::uint32_t offset;
    std::uint32_t length;
    std::uint32_t actual_length;
    std::uint32_t status;
};
static_assert(sizeof(usbip_iso_packet_descriptor) == 16);

// Longest PDU that is accepted. The kernel's storage drivers ask for at most 1 MiB at a time and
// usbfs, by default, for 16 MiB; 256 MiB is also what a compressed PDU may inflate to.
inline constexpr std::uint64_t kUsbipMaxPdu = std::uint64_t{256} << 20;

// The protocol's mark for a transfer that is not isochronous; Linux itself writes 0.
inline constexpr std::uint32_t kUsbipNotIso = 0xFFFFFFFF;

// What follows a header. Computed in 64 bits: two 32-bit fields cannot wrap it.
struct UsbipPduLength {
    std::uint64_t data = 0;  // transfer data
    std::uint64_t iso = 0;   // isochronous packet descriptors

    std::uint64_t Total() const { return sizeof(usbip_header) + data + iso; }
    bool Acceptable() const { return Total() <= kUsbipMaxPdu; }
};

inline std::uint64_t UsbipIsoBytes(std::uint32_t number_of_packets_be) {
    if (number_of_packets_be == kUsbipNotIso) return 0;
    return std::uint64_t{be32toh(number_of_packets_be)} * sizeof(usbip_iso_packet_descriptor);
}

// OUT data travels with the command.
inline UsbipPduLength UsbipCmdSubmitLength(const usbip_header& header) {
    const bool out = header.direction == USBIP_DIR_OUT;
    return {out ? be32toh(header.u.cmd_submit.transfer_buffer_length) : 0,
            UsbipIsoBytes(header.u.cmd_submit.number_of_packets)};
}

// IN data travels with the reply. A reply does not say which command it answers: the reader has to
// remember which sequence numbers were OUT.
inline UsbipPduLength UsbipRetSubmitLength(const usbip_header& header, bool answers_out) {
    return {answers_out ? 0 : be32toh(header.u.ret_submit.actual_length),
            UsbipIsoBytes(header.u.ret_submit.number_of_packets)};
}

// The header at the front of `bytes`; zero where they end early.
inline usbip_header UsbipHeaderOf(std::string_view bytes) {
    usbip_header header{};
    bytes.copy(reinterpret_cast<char*>(&header), sizeof header);
    return header;
}

// What follows the header of a command, or of a reply; none when the header is of neither.
inline std::optional<UsbipPduLength> UsbipCommandLength(const usbip_header& header) {
    const std::uint32_t command = be32toh(header.command);
    if (command == USBIP_CMD_SUBMIT) return UsbipCmdSubmitLength(header);
    if (command == USBIP_CMD_UNLINK) return UsbipPduLength{};
    return std::nullopt;
}
inline std::optional<UsbipPduLength> UsbipReplyLength(const usbip_header& header,
                                                      bool answers_out) {
    const std::uint32_t command = be32toh(header.command);
    if (command == USBIP_RET_SUBMIT) return UsbipRetSubmitLength(header, answers_out);
    if (command == USBIP_RET_UNLINK) return UsbipPduLength{};
    return std::nullopt;
}
