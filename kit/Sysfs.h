// Attributes: small files with one value each.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

namespace xj_usbip {

inline constexpr char kController[] = "/devices/platform/vhci_hcd.";

// The first line; empty when it cannot be read.
inline std::string ReadAttribute(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// In one write, as the kernel wants it.
inline bool WriteAttribute(const std::string& path, std::string_view value, std::string& error) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const bool written = file >= 0 && ::write(file, value.data(), value.size()) ==
                                          static_cast<ssize_t>(value.size());
    if (!written) error = path + ": " + std::generic_category().message(errno);
    if (file >= 0) ::close(file);
    return written;
}

}  // namespace xj_usbip
