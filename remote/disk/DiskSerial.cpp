#include "remote/disk/DiskSerial.h"

#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace remote {

std::string DiskSerial(const std::string& path, const std::string& machine) {
    std::error_code ignored;
    const std::string full = std::filesystem::weakly_canonical(path, ignored).string();
    std::uint64_t hash = 0xCBF29CE484222325;  // FNV-1a, 64 bits
    for (const char c : machine + full)
        hash = (hash ^ static_cast<std::uint8_t>(c)) * 0x100000001B3;
    char text[17];
    std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(hash));
    return text;
}

std::string MachineName() {
    std::string id;
    std::getline(std::ifstream("/etc/machine-id"), id);
    if (!id.empty()) return id;
    char name[HOST_NAME_MAX + 1] = {};  // containers often have no id, but a name of their own
    gethostname(name, sizeof name - 1);
    return name;
}

}  // namespace remote
