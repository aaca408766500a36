// Byte sequences and unaligned integers of both byte orders: USB is little-endian, SCSI big-endian.
#pragma once

#include <endian.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace remote {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;
using ByteSpan = std::span<std::uint8_t>;

template <typename T>
T LoadRaw(const std::uint8_t* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <typename T>
void StoreRaw(std::uint8_t* to, const T& value) {
    std::memcpy(to, &value, sizeof value);
}

template <typename T>
Bytes ToBytes(const T& record) {
    Bytes bytes(sizeof record);
    StoreRaw(bytes.data(), record);
    return bytes;
}

inline std::uint16_t LoadLe16(const std::uint8_t* p) {
    return le16toh(LoadRaw<std::uint16_t>(p));
}
inline std::uint32_t LoadLe32(const std::uint8_t* p) {
    return le32toh(LoadRaw<std::uint32_t>(p));
}
inline void StoreLe32(std::uint8_t* p, std::uint32_t value) {
    StoreRaw(p, htole32(value));
}

inline std::uint16_t LoadBe16(const std::uint8_t* p) {
    return be16toh(LoadRaw<std::uint16_t>(p));
}
inline std::uint32_t LoadBe32(const std::uint8_t* p) {
    return be32toh(LoadRaw<std::uint32_t>(p));
}
inline std::uint64_t LoadBe64(const std::uint8_t* p) {
    return be64toh(LoadRaw<std::uint64_t>(p));
}
inline void StoreBe16(std::uint8_t* p, std::uint16_t value) {
    StoreRaw(p, htobe16(value));
}
inline void StoreBe32(std::uint8_t* p, std::uint32_t value) {
    StoreRaw(p, htobe32(value));
}
inline void StoreBe64(std::uint8_t* p, std::uint64_t value) {
    StoreRaw(p, htobe64(value));
}

}  // namespace remote
