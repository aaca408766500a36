// The file behind a virtual disk.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "posix/UniqueFd.h"
#include "remote/io/Bytes.h"

namespace remote {

class DiskImage {
  public:
    static constexpr std::uint32_t kBlockSize = 512;

    // Opens a plain file of one block or more, and locks it against other users for as long as this
    // lives: all of them, or for `read_only` those who write. Nothing: `error` says why not.
    static std::optional<DiskImage> Open(const std::string& path, bool read_only,
                                         std::string& error);

    bool ReadOnly() const { return read_only_; }
    std::uint64_t Blocks() const { return size_ / kBlockSize; }

    // Offsets are in bytes, within the image (the caller checks). False: the file failed; logged.
    bool Read(std::uint64_t offset, ByteSpan into) const;
    bool Write(std::uint64_t offset, ByteView data);

    // Returns when what was written has reached the disk below. False: some of it has not, now or
    // once before. The kernel tells of that once and forgets the data, so no later attempt counts.
    bool Sync();

  private:
    DiskImage(std::string path, posix::UniqueFd file, std::uint64_t size, bool read_only);

    std::string path_;
    posix::UniqueFd file_;
    std::uint64_t size_;
    bool read_only_;
    bool dirty_ = false;  // written since the last Sync
    bool lost_ = false;   // a Sync has failed
};

}  // namespace remote
