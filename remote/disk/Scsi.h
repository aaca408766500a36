// The disk's SCSI commands (SPC-4, SBC-3): what a command block asks for, and the data it moves.
// The transport moves the data in pieces of its own choosing.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "remote/disk/DiskImage.h"
#include "remote/io/Bytes.h"

namespace remote {

struct Sense {
    std::uint8_t key;
    std::uint8_t code;  // additional sense code; the qualifier is 0 in all we report
};

class Scsi {
  public:
    enum class Flow : std::uint8_t { kNone, kIn, kOut };
    struct Plan {
        Flow flow = Flow::kNone;
        std::uint64_t length = 0;  // bytes; 0 exactly when there is no flow
    };
    using CommandBlock = std::array<std::uint8_t, 16>;

    Scsi(DiskImage image, std::string serial);

    // Starts a command and ends the one before. A refused one moves no data and is not Good.
    Plan Begin(const CommandBlock& command);

    // Moves the next bytes of the command's data; never more, in all, than its plan's length.
    // False: the image failed, the command is not Good and moves no more data.
    bool Read(ByteSpan into);
    bool Write(ByteView data);

    bool Good() const { return good_; }
    bool Sync() { return image_.Sync(); }

  private:
    Plan Fail(Sense sense);
    Plan Respond(Bytes response, std::size_t allocated);
    Plan Blocks(Flow flow, std::uint64_t block, std::uint64_t count, std::uint8_t flags);
    Plan Inquiry(const CommandBlock& command);
    Plan VitalProductData(std::uint8_t page, std::size_t allocated);
    Plan RequestSense(const CommandBlock& command);
    Plan ModeSense(const CommandBlock& command, bool ten);
    Plan ReadCapacity10();
    Plan ReadCapacity16(const CommandBlock& command);
    Plan Synchronize();
    Plan Verify(const CommandBlock& command);

    bool InRange(std::uint64_t block, std::uint64_t count) const {
        return block < image_.Blocks() && count <= image_.Blocks() - block;
    }

    DiskImage image_;
    const std::string serial_;
    Sense sense_{};
    bool good_ = true;
    Bytes response_;            // of a command that answers from memory; else empty
    std::uint64_t offset_ = 0;  // next byte of the response, or of the image
};

}  // namespace remote
