// The blocks of a pcapng file, and the packets of link type USB_LINUX_MMAPPED in it, as usbmon lays
// them out (the kernel's Documentation/usb/usbmon.rst). All in this machine's byte order, which the
// file tells.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace xj_usbip {

struct UsbmonIsochronous {
    std::int32_t errors;
    std::int32_t packets;
};

struct UsbmonPacket {
    std::uint64_t id = 0;  // the same for the submission and the completion of an URB
    char event = 'S';      // 'S' submission, 'C' completion
    std::uint8_t transfer = 0;
    std::uint8_t endpoint = 0;  // with the direction in its highest bit
    std::uint8_t device = 0;
    std::uint16_t bus = 0;
    char setup_flag = '-';  // 0: `setup` is there
    char data_flag = '=';   // 0: data follows; else why not
    std::int64_t seconds = 0;
    std::int32_t microseconds = 0;
    std::int32_t status = 0;
    std::uint32_t length = 0;    // of the URB's data
    std::uint32_t captured = 0;  // bytes that follow, isochronous descriptors included
    union {
        std::uint8_t setup[8] = {};
        UsbmonIsochronous iso;
    };
    std::int32_t interval = 0;
    std::int32_t start_frame = 0;
    std::uint32_t flags = 0;
    std::uint32_t descriptors = 0;  // isochronous ones, which come before the data
};
static_assert(sizeof(UsbmonPacket) == 64);

enum UsbmonTransfer : std::uint8_t { kIsochronous = 0, kInterrupt = 1, kControl = 2, kBulk = 3 };

struct UsbmonIsoDescriptor {
    std::int32_t status;
    std::uint32_t offset;
    std::uint32_t length;
    std::uint32_t padding;
};

// What a file begins with. `most` is the longest packet.
std::string PcapngHead(std::uint32_t most);

// Appends a packet of `size` bytes, of which `bytes` are those that are left behind its header.
void AppendPacket(std::string& to, const UsbmonPacket& packet, std::string_view bytes,
                  std::uint64_t size);

// Of the first block in `blocks`, all of which are whole.
std::size_t PcapngBlockSize(std::string_view blocks);

}  // namespace xj_usbip
