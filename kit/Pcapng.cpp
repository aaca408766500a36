#include "kit/Pcapng.h"

#include <algorithm>

namespace xj_usbip {
namespace {

constexpr std::uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr std::uint32_t kInterface = 1;
constexpr std::uint32_t kEnhancedPacket = 6;
constexpr std::uint32_t kByteOrder = 0x1A2B3C4D;
constexpr std::uint16_t kUsbLinuxMmapped = 220;

template <typename... Numbers>
void append(std::string& to, Numbers... numbers) {
    (to.append(reinterpret_cast<const char*>(&numbers), sizeof numbers), ...);
}

}  // namespace

std::string PcapngHead(std::uint32_t most) {
    constexpr std::uint32_t kSectionSize = 28;
    constexpr std::uint32_t kInterfaceSize = 20;
    constexpr std::uint16_t kMajor = 1;
    constexpr std::uint16_t kMinor = 0;
    constexpr std::int64_t kUnknownLength = -1;
    std::string head;
    append(head, kSectionHeader, kSectionSize, kByteOrder, kMajor, kMinor, kUnknownLength,
           kSectionSize);
    append(head, kInterface, kInterfaceSize, kUsbLinuxMmapped, std::uint16_t{0}, most,
           kInterfaceSize);
    return head;
}

void AppendPacket(std::string& to, const UsbmonPacket& packet, std::string_view bytes,
                  std::uint64_t size) {
    constexpr std::uint32_t kAround = 32;  // bytes of a block that are not the packet
    const auto captured = static_cast<std::uint32_t>(sizeof packet + bytes.size());
    const std::uint32_t padding = (4 - captured % 4) % 4;
    const std::uint32_t block = kAround + captured + padding;
    const auto time = static_cast<std::uint64_t>(packet.seconds * 1'000'000 + packet.microseconds);
    const auto whole = static_cast<std::uint32_t>(
        std::clamp<std::uint64_t>(sizeof packet + size, captured, UINT32_MAX));
    append(to, kEnhancedPacket, block, std::uint32_t{0}, static_cast<std::uint32_t>(time >> 32),
           static_cast<std::uint32_t>(time), captured, whole, packet);
    to += bytes;
    to.append(padding, '\0');
    append(to, block);
}

std::size_t PcapngBlockSize(std::string_view blocks) {
    std::uint32_t size = 0;  // behind the type
    blocks.substr(sizeof size).copy(reinterpret_cast<char*>(&size), sizeof size);
    return size;
}

}  // namespace xj_usbip
