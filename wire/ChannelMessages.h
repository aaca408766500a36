// The channel protocol on the host stream, byte by byte. Both sides of the wire include this.
//
// Every message carries two headers: an outer one whose type names the USB/IP channel and an inner
// one whose type names the message. Integers are little-endian. Sizes are in bytes. The structs
// describe whole messages, from the first byte of the outer header.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

static_assert(std::endian::native == std::endian::little,
              "the stream's integers are read in place");

struct _MESSAGE_HEADER {
    std::uint32_t length;      // bytes that follow this header and belong to the message
    std::uint8_t type;         // message type at this nesting level
    std::uint8_t reserved[3];  // zero; never examined
};
static_assert(sizeof(_MESSAGE_HEADER) == 8);

inline constexpr std::uint8_t kUsbipChannel = 0x0B;  // outer type of every message

enum UsbipMessageType : std::uint8_t {  // inner types
    kUsbipVersionReq = 1,               // remote to client
    kUsbipVersionRsp = 2,               // client to remote
    kUsbipDevMap = 3,                   // remote to client
    kUsbipDevUnmap = 4,                 // remote to client: unmap; client to remote: device ended
    kUsbipForward = 5,                  // both ways
};

struct usbip_message_head {
    _MESSAGE_HEADER outer;
    _MESSAGE_HEADER inner;
};

inline constexpr std::uint8_t kVersionFlagCompress = 0x01;  // sender accepts compressed forwards
inline constexpr std::uint32_t kUsbipProtocolVersion = 3;

struct usbip_version_req {
    usbip_message_head head;
    std::uint8_t flags;
    std::uint8_t reserved[3];
};

struct usbip_version_rsp {
    usbip_message_head head;
    std::uint32_t version;
};

// One remote device. `speed` uses the kernel's enum usb_device_speed: 1 low, 2 full, 3 high,
// 4 wireless, 5 super.
struct _USBIP_DEV {
    char instanceid[256];  // names the device on the remote side; a NUL may be missing
    std::uint8_t reserved1[256];
    std::uint8_t reserved2[256];
    std::uint8_t reserved3[32];
    std::uint32_t busid;
    std::uint32_t portid;
    std::uint32_t speed;
    std::uint16_t vid;
    std::uint16_t pid;
    std::uint8_t reserved4[8];
};
static_assert(offsetof(_USBIP_DEV, busid) == 800 && offsetof(_USBIP_DEV, vid) == 812 &&
              sizeof(_USBIP_DEV) == 824);

struct usbip_dev_map {
    usbip_message_head head;
    std::uint32_t devid;
    _USBIP_DEV dev;
};

struct usbip_dev_unmap {
    usbip_message_head head;
    std::uint32_t devid;
};

// `datasize` bytes of data follow, then (always written, not required on receipt) the filler.
struct usbip_forward {
    usbip_message_head head;
    std::uint32_t devid;
    std::uint32_t datasize;
    std::uint32_t rawsize;  // 0: data as it is; else data is a zlib stream of this length inflated
};
inline constexpr std::size_t kForwardFiller = 4;  // zero bytes after the data, counted in lengths
inline constexpr std::size_t kForwardOverhead = sizeof(usbip_forward) + kForwardFiller;

static_assert(sizeof(usbip_version_req) == 20 && sizeof(usbip_version_rsp) == 20 &&
              sizeof(usbip_dev_map) == 844 && sizeof(usbip_dev_unmap) == 20 &&
              sizeof(usbip_forward) == 28);

// PDUs longer than this are sent compressed to a peer that accepts it.
inline constexpr std::size_t kCompressThreshold = 4096;

// Largest PDU that either side inflates; a larger `rawsize` is refused.
inline constexpr std::size_t kMaxRawSize = std::size_t{256} << 20;

// The two headers of a message of `size` bytes in all (at least sizeof(usbip_message_head)).
inline usbip_message_head MakeMessageHead(UsbipMessageType type, std::size_t size) {
    usbip_message_head head{};
    head.outer.length = static_cast<std::uint32_t>(size - sizeof head.outer);
    head.outer.type = kUsbipChannel;
    head.inner.length = static_cast<std::uint32_t>(size - sizeof head);
    head.inner.type = type;
    return head;
}
