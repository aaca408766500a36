// USB mass-storage bulk-only transport: the two bulk endpoints as a state machine between URBs and
// the SCSI disk. What it does when host and command disagree about the data are the "thirteen
// cases" of the transport's definition (section 6.7).
#pragma once

#include <cstddef>
#include <cstdint>

#include "remote/disk/Scsi.h"
#include "remote/io/Bytes.h"

namespace remote {

class BulkOnly {
  public:
    static constexpr std::size_t kCbwSize = 31;
    static constexpr std::size_t kCswSize = 13;

    enum class Outcome : std::uint8_t {
        kDone,
        kStall,  // some bytes may have been moved before
        kWait,   // the endpoint is not ready: nothing has happened, ask again later
    };

    // `max_packet`: of the bulk endpoints; a transfer that ends on a whole packet needs a stall to
    // show its end.
    BulkOnly(Scsi scsi, std::size_t max_packet) : scsi_(std::move(scsi)), max_packet_(max_packet) {}

    // One bulk OUT transfer. `taken`: how many of its bytes were.
    Outcome Out(ByteView data, std::size_t& taken);

    // One bulk IN transfer of at most `capacity` bytes, which are appended to `reply`.
    Outcome In(std::size_t capacity, Bytes& reply);

    bool StatusIsNext() const { return phase_ == Phase::kStatus; }

    bool Halted(bool in) const { return in ? in_halted_ : out_halted_; }
    void Halt(bool in) { (in ? in_halted_ : out_halted_) = true; }
    void ClearHalt(bool in);  // without effect between an invalid CBW and Reset

    void Reset();      // the class request: ready for a CBW, halts stay
    void Configure();  // a configuration was set: ready for a CBW, nothing halted

    bool Sync() { return scsi_.Sync(); }

  private:
    enum class Phase : std::uint8_t { kCommand, kDataOut, kDataIn, kStatus, kInvalid };
    enum Status : std::uint8_t { kPassed = 0, kFailed = 1, kPhaseError = 2 };

    bool Begin(ByteView cbw);
    void EndEarly(bool in, Status status);
    void AppendCsw(Bytes& reply);

    Scsi scsi_;
    std::size_t max_packet_;
    Phase phase_ = Phase::kCommand;
    bool in_halted_ = false;
    bool out_halted_ = false;
    // The command under way.
    std::uint32_t tag_ = 0;
    std::uint32_t host_left_ = 0;    // bytes the host still expects to move: the residue
    std::uint64_t device_left_ = 0;  // bytes the command still has to move
    Status status_ = kPassed;
};

}  // namespace remote
