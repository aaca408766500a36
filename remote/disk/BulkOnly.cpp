#include "remote/disk/BulkOnly.h"

#include <algorithm>

namespace remote {
namespace {

constexpr std::uint32_t kCbwSignature = 0x43425355;  // "USBC"
constexpr std::uint32_t kCswSignature = 0x53425355;  // "USBS"
constexpr std::uint8_t kCbwIn = 0x80;                // the one flag there is
constexpr std::size_t kCbwBlock = 15;                // offset of the command block

bool valid_cbw(ByteView cbw) {
    return cbw.size() == BulkOnly::kCbwSize && LoadLe32(cbw.data()) == kCbwSignature &&
           (cbw[12] & ~kCbwIn) == 0 &&  // flags
           cbw[13] == 0 &&              // LUN: there is one
           cbw[14] >= 1 && cbw[14] <= 16;
}

}  // namespace

BulkOnly::Outcome BulkOnly::Out(ByteView data, std::size_t& taken) {
    taken = 0;
    if (out_halted_) return Outcome::kStall;
    if (phase_ == Phase::kCommand) {
        if (!Begin(data)) return Outcome::kStall;
        taken = data.size();
        return Outcome::kDone;
    }
    if (phase_ != Phase::kDataOut) return Outcome::kWait;
    const std::size_t size = std::min<std::uint64_t>(data.size(), device_left_);
    if (!scsi_.Write(data.first(size))) {
        EndEarly(false, kFailed);
        return Outcome::kStall;
    }
    taken = size;
    host_left_ -= static_cast<std::uint32_t>(size);
    device_left_ -= size;
    if (device_left_ == 0) {
        phase_ = Phase::kStatus;
        if (host_left_ != 0 || size < data.size()) EndEarly(false, kPassed);
    }
    return size < data.size() ? Outcome::kStall : Outcome::kDone;
}

BulkOnly::Outcome BulkOnly::In(std::size_t capacity, Bytes& reply) {
    if (in_halted_) return Outcome::kStall;
    if (phase_ == Phase::kStatus) {
        if (capacity < kCswSize) {
            Halt(true);
            return Outcome::kStall;
        }
        AppendCsw(reply);
        phase_ = Phase::kCommand;
        return Outcome::kDone;
    }
    if (phase_ != Phase::kDataIn) return Outcome::kWait;
    const std::size_t size = std::min<std::uint64_t>(capacity, device_left_);
    const std::size_t start = reply.size();
    reply.resize(start + size);
    if (!scsi_.Read(ByteSpan(reply).subspan(start))) {
        reply.resize(start);
        EndEarly(true, kFailed);
        return Outcome::kStall;
    }
    host_left_ -= static_cast<std::uint32_t>(size);
    device_left_ -= size;
    if (host_left_ == 0) {
        phase_ = Phase::kStatus;
        return Outcome::kDone;
    }
    if (size == capacity) return Outcome::kDone;
    // The command has less data than the host expects: a short packet or a stall says so.
    if (size % max_packet_ != 0) {
        phase_ = Phase::kStatus;
        return Outcome::kDone;
    }
    EndEarly(true, kPassed);
    return Outcome::kStall;
}

void BulkOnly::ClearHalt(bool in) {
    if (phase_ != Phase::kInvalid) (in ? in_halted_ : out_halted_) = false;
}

void BulkOnly::Reset() {
    phase_ = Phase::kCommand;
}

void BulkOnly::Configure() {
    Reset();
    in_halted_ = false;
    out_halted_ = false;
}

// False: the CBW is invalid and the device waits for reset recovery.
bool BulkOnly::Begin(ByteView cbw) {
    if (!valid_cbw(cbw)) {
        phase_ = Phase::kInvalid;
        Halt(true);
        Halt(false);
        return false;
    }
    tag_ = LoadLe32(&cbw[4]);
    host_left_ = LoadLe32(&cbw[8]);
    const bool host_in = (cbw[12] & kCbwIn) != 0;
    Scsi::CommandBlock block{};  // bytes beyond the length given count as zero
    std::copy_n(cbw.begin() + kCbwBlock, cbw[14], block.begin());

    const Scsi::Plan plan = scsi_.Begin(block);
    status_ = scsi_.Good() ? kPassed : kFailed;
    device_left_ = plan.length;
    const bool opposite = host_in ? plan.flow == Scsi::Flow::kOut : plan.flow == Scsi::Flow::kIn;
    if (plan.length > host_left_ || opposite) {
        status_ = kPhaseError;  // cases 2, 3, 7, 8, 10 and 13: nothing is moved
    } else if (plan.length != 0) {
        phase_ = host_in ? Phase::kDataIn : Phase::kDataOut;
        return true;
    }
    phase_ = Phase::kStatus;
    if (host_left_ != 0) EndEarly(host_in, status_);
    return true;
}

// Ends a data stage before the host does.
void BulkOnly::EndEarly(bool in, Status status) {
    status_ = status;
    phase_ = Phase::kStatus;
    Halt(in);
}

void BulkOnly::AppendCsw(Bytes& reply) {
    const std::size_t start = reply.size();
    reply.resize(start + kCswSize);
    std::uint8_t* csw = &reply[start];
    StoreLe32(csw, kCswSignature);
    StoreLe32(csw + 4, tag_);
    StoreLe32(csw + 8, host_left_);
    csw[12] = status_;
}

}  // namespace remote
