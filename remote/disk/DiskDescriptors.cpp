#include "remote/disk/DiskDescriptors.h"

#include <initializer_list>
#include <string_view>

namespace remote {
namespace {

enum DescriptorType : std::uint8_t {
    kDevice = 1,
    kConfiguration = 2,
    kString = 3,
    kInterface = 4,
    kEndpoint = 5,
    kDeviceQualifier = 6,
    kOtherSpeed = 7,
    kBos = 15,
    kDeviceCapability = 16,
    kEndpointCompanion = 48,
};

enum StringIndex : std::uint8_t { kLanguages = 0, kManufacturer, kProductName, kSerial };

constexpr std::uint16_t kFullSpeedPacket = 64;
constexpr std::uint8_t kSelfPowered = 0xC0;  // draws nothing from the bus

constexpr std::uint8_t low(std::uint16_t value) {
    return static_cast<std::uint8_t>(value & 0xFF);
}
constexpr std::uint8_t high(std::uint16_t value) {
    return static_cast<std::uint8_t>(value >> 8);
}

// Appends one descriptor: its length, then `fields` (the first is its type).
void append(Bytes& to, std::initializer_list<std::uint8_t> fields) {
    to.push_back(static_cast<std::uint8_t>(fields.size() + 1));
    to.insert(to.end(), fields);
}

Bytes device(UsbSpeed speed) {
    const bool super = speed == UsbSpeed::kSuper;
    const std::uint8_t usb = super ? 0x03 : 0x02;        // USB 3.0 or 2.0
    const std::uint8_t control_packet = super ? 9 : 64;  // at super speed the power of two
    Bytes bytes;
    append(bytes, {kDevice, 0x00, usb, 0x00, 0x00, 0x00, control_packet, low(kDiskVendor),
                   high(kDiskVendor), low(kDiskProduct), high(kDiskProduct), 0x00, 0x01,
                   kManufacturer, kProductName, kSerial, 1});
    return bytes;
}

Bytes qualifier() {
    Bytes bytes;
    append(bytes, {kDeviceQualifier, 0x00, 0x02, 0x00, 0x00, 0x00, 64, 1, 0x00});
    return bytes;
}

Bytes configuration(DescriptorType type, std::uint16_t packet, bool super) {
    constexpr std::uint8_t kInterfaces = 1;
    constexpr std::uint8_t kBulk = 0x02;
    constexpr std::uint8_t kBurst = 15;  // 16 packets, the most there can be
    Bytes bytes;
    append(bytes, {type, 0x00, 0x00, kInterfaces, kDiskConfiguration, 0x00, kSelfPowered, 0x00});
    // Mass storage, SCSI transparent command set, bulk-only transport.
    append(bytes, {kInterface, 0x00, 0x00, 2, 0x08, 0x06, 0x50, 0x00});
    for (const std::uint8_t address : {kBulkIn, kBulkOut}) {
        append(bytes, {kEndpoint, address, kBulk, low(packet), high(packet), 0x00});
        if (super) append(bytes, {kEndpointCompanion, kBurst, 0x00, 0x00, 0x00});
    }
    bytes[2] = static_cast<std::uint8_t>(bytes.size());  // total length
    return bytes;
}

Bytes binary_object_store() {
    Bytes bytes;
    append(bytes, {kBos, 0x00, 0x00, 2});
    append(bytes, {kDeviceCapability, 0x02, 0x02, 0x00, 0x00, 0x00});  // USB 2.0 link power states
    // Works at high and super speed. Exit latencies of 0: no link power states here either.
    append(bytes, {kDeviceCapability, 0x03, 0x00, 0x0C, 0x00, 0x02, 0x00, 0x00, 0x00});
    bytes[2] = static_cast<std::uint8_t>(bytes.size());  // total length
    return bytes;
}

Bytes text(std::string_view characters) {
    Bytes bytes{static_cast<std::uint8_t>(2 + 2 * characters.size()), kString};
    for (const char character : characters) {
        bytes.push_back(static_cast<std::uint8_t>(character));
        bytes.push_back(0x00);
    }
    return bytes;
}

std::optional<Bytes> string(std::uint8_t index, const std::string& serial) {
    switch (index) {
        case kLanguages:
            return Bytes{4, kString, 0x09, 0x04};  // US English
        case kManufacturer:
            return text("xj-usbip-remote");
        case kProductName:
            return text("Remote disk");
        case kSerial:
            return text(serial);
        default:
            return std::nullopt;
    }
}

}  // namespace

std::uint16_t BulkPacketSize(UsbSpeed speed) {
    return speed == UsbSpeed::kSuper ? 1024 : 512;
}

std::optional<Bytes> DiskDescriptor(UsbSpeed speed, std::uint8_t type, std::uint8_t index,
                                    const std::string& serial) {
    const bool super = speed == UsbSpeed::kSuper;
    if (type == kString) return string(index, serial);
    if (index != 0) return std::nullopt;
    switch (type) {
        case kDevice:
            return device(speed);
        case kConfiguration:
            return configuration(kConfiguration, BulkPacketSize(speed), super);
        case kDeviceQualifier:
            if (super) return std::nullopt;
            return qualifier();
        case kOtherSpeed:
            if (super) return std::nullopt;
            return configuration(kOtherSpeed, kFullSpeedPacket, false);
        case kBos:
            if (!super) return std::nullopt;
            return binary_object_store();
        default:
            return std::nullopt;
    }
}

}  // namespace remote
