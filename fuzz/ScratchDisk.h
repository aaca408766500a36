// A virtual disk over an image in memory, cleared for every input.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>

#include "fuzz/Target.h"
#include "remote/disk/DiskImage.h"
#include "remote/disk/UsbDisk.h"

inline std::unique_ptr<remote::UsbDisk> ScratchDisk(remote::UsbSpeed speed) {
    constexpr off_t kSize = 256 * remote::DiskImage::kBlockSize;
    static const int memory = memfd_create("disk", MFD_CLOEXEC);
    Require(ftruncate(memory, 0) == 0 && ftruncate(memory, kSize) == 0, "memory for the image");
    std::string error;
    auto image = remote::DiskImage::Open("/proc/self/fd/" + std::to_string(memory), false, error);
    Require(image.has_value(), error.c_str());
    return std::make_unique<remote::UsbDisk>(std::move(*image), speed, "disk", "0123456789AB");
}
