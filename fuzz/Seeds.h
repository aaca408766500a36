// Writing seeds: one file each, in a directory for each target.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "fakes/Messages.h"

inline std::filesystem::path corpus;  // set by main

inline void seed(const std::string& target, const std::string& name, const std::string& bytes) {
    std::filesystem::create_directories(corpus / target);
    std::ofstream(corpus / target / name, std::ios::binary) << bytes;
}

inline std::string byte(int value) {
    return {static_cast<char>(value)};
}
inline std::string half(std::size_t value) {  // 16 bits, little-endian
    return byte(static_cast<int>(value & 0xFF)) + byte(static_cast<int>(value >> 8));
}
inline std::string word(std::uint32_t value) {
    return Bytes(value);
}
inline std::string block(const std::string& bytes) {
    return half(bytes.size()) + bytes;
}
