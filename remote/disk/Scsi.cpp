#include "remote/disk/Scsi.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace remote {
namespace {

constexpr std::string_view kVendor = "XJ      ";           // 8 characters
constexpr std::string_view kProduct = "Remote disk     ";  // 16 characters
constexpr std::string_view kRevision = "1.00";             // 4 characters

enum Operation : std::uint8_t {
    kTestUnitReady = 0x00,
    kRequestSense = 0x03,
    kInquiry = 0x12,
    kModeSense6 = 0x1A,
    kStartStopUnit = 0x1B,
    kPreventAllow = 0x1E,
    kReadCapacity10 = 0x25,
    kRead10 = 0x28,
    kWrite10 = 0x2A,
    kVerify10 = 0x2F,
    kSynchronizeCache10 = 0x35,
    kModeSense10 = 0x5A,
    kRead16 = 0x88,
    kWrite16 = 0x8A,
    kServiceActionIn16 = 0x9E,
    kReportLuns = 0xA0,
};
constexpr std::uint8_t kServiceReadCapacity16 = 0x10;

constexpr Sense kReadError{0x03, 0x11};  // MEDIUM ERROR, unrecovered read error
constexpr Sense kWriteError{0x03, 0x0C};
constexpr Sense kInvalidOperation{0x05, 0x20};  // ILLEGAL REQUEST
constexpr Sense kOutOfRange{0x05, 0x21};
constexpr Sense kInvalidField{0x05, 0x24};
constexpr Sense kWriteProtected{0x07, 0x27};  // DATA PROTECT

constexpr std::uint8_t kPageCaching = 0x08;
constexpr std::uint8_t kPageAll = 0x3F;

void append(Bytes& to, std::string_view text) {
    to.insert(to.end(), text.begin(), text.end());
}

}  // namespace

Scsi::Scsi(DiskImage image, std::string serial)
    : image_(std::move(image)), serial_(std::move(serial)) {}

Scsi::Plan Scsi::Begin(const CommandBlock& command) {
    const std::uint8_t* c = command.data();
    response_.clear();
    offset_ = 0;
    good_ = true;
    if (c[0] == kRequestSense) return RequestSense(command);
    sense_ = {};
    switch (c[0]) {
        case kTestUnitReady:
        case kPreventAllow:
            return {};
        case kInquiry:
            return Inquiry(command);
        case kModeSense6:
            return ModeSense(command, false);
        case kModeSense10:
            return ModeSense(command, true);
        case kReadCapacity10:
            return ReadCapacity10();
        case kServiceActionIn16:
            return ReadCapacity16(command);
        case kRead10:
            return Blocks(Flow::kIn, LoadBe32(c + 2), LoadBe16(c + 7), c[1]);
        case kRead16:
            return Blocks(Flow::kIn, LoadBe64(c + 2), LoadBe32(c + 10), c[1]);
        case kWrite10:
            return Blocks(Flow::kOut, LoadBe32(c + 2), LoadBe16(c + 7), c[1]);
        case kWrite16:
            return Blocks(Flow::kOut, LoadBe64(c + 2), LoadBe32(c + 10), c[1]);
        case kVerify10:
            return Verify(command);
        case kStartStopUnit:  // the host may cut the power next
        case kSynchronizeCache10:
            return Synchronize();
        case kReportLuns: {
            Bytes luns(16);  // list length, reserved, LUN 0
            luns[3] = 8;
            return Respond(std::move(luns), LoadBe32(c + 6));
        }
        default:
            return Fail(kInvalidOperation);
    }
}

bool Scsi::Read(ByteSpan into) {
    if (!response_.empty()) {
        const auto from = response_.begin() + static_cast<std::ptrdiff_t>(offset_);
        std::copy_n(from, into.size(), into.begin());
    } else if (!image_.Read(offset_, into)) {
        Fail(kReadError);
        return false;
    }
    offset_ += into.size();
    return true;
}

bool Scsi::Write(ByteView data) {
    if (!image_.Write(offset_, data)) {
        Fail(kWriteError);
        return false;
    }
    offset_ += data.size();
    return true;
}

Scsi::Plan Scsi::Fail(Sense sense) {
    sense_ = sense;
    good_ = false;
    return {};
}

Scsi::Plan Scsi::Respond(Bytes response, std::size_t allocated) {
    response.resize(std::min(response.size(), allocated));
    response_ = std::move(response);
    return {response_.empty() ? Flow::kNone : Flow::kIn, response_.size()};
}

Scsi::Plan Scsi::Blocks(Flow flow, std::uint64_t block, std::uint64_t count, std::uint8_t flags) {
    // Protection information and forced unit access are not offered; DPO is a hint.
    constexpr std::uint8_t kProtectOrFua = 0xE8;
    if ((flags & kProtectOrFua) != 0) return Fail(kInvalidField);
    if (flow == Flow::kOut && image_.ReadOnly()) return Fail(kWriteProtected);
    if (!InRange(block, count)) return Fail(kOutOfRange);
    if (count == 0) return {};
    offset_ = block * DiskImage::kBlockSize;
    return {flow, count * DiskImage::kBlockSize};
}

Scsi::Plan Scsi::Inquiry(const CommandBlock& command) {
    const bool vital = (command[1] & 0x01) != 0;
    const std::size_t allocated = LoadBe16(&command[3]);
    if (vital) return VitalProductData(command[2], allocated);
    if (command[2] != 0) return Fail(kInvalidField);
    // Direct access, not removable, SPC-4, response format 2, 31 more bytes.
    Bytes data{0x00, 0x00, 0x06, 0x02, 31, 0x00, 0x00, 0x00};
    append(data, kVendor);
    append(data, kProduct);
    append(data, kRevision);
    return Respond(std::move(data), allocated);
}

Scsi::Plan Scsi::VitalProductData(std::uint8_t page, std::size_t allocated) {
    Bytes data{0x00, page, 0x00, 0x00};
    switch (page) {
        case 0x00:  // pages there are
            data.insert(data.end(), {0x00, 0x80, 0x83, 0xB0});
            break;
        case 0x80:
            append(data, serial_);
            break;
        case 0x83: {  // one designator: ASCII, by vendor
            const auto length = static_cast<std::uint8_t>(kVendor.size() + serial_.size());
            data.insert(data.end(), {0x02, 0x01, 0x00, length});
            append(data, kVendor);
            append(data, serial_);
            break;
        }
        case 0xB0:  // block limits: none
            data.resize(data.size() + 0x3C);
            break;
        default:
            return Fail(kInvalidField);
    }
    StoreBe16(&data[2], static_cast<std::uint16_t>(data.size() - 4));
    return Respond(std::move(data), allocated);
}

Scsi::Plan Scsi::RequestSense(const CommandBlock& command) {
    Bytes data(18);
    data[0] = 0x70;  // current error, fixed format
    data[2] = sense_.key;
    data[7] = 10;  // bytes after this one
    data[12] = sense_.code;
    sense_ = {};
    return Respond(std::move(data), command[4]);
}

Scsi::Plan Scsi::ModeSense(const CommandBlock& command, bool ten) {
    const std::uint8_t page = command[2] & 0x3F;
    const bool saved = (command[2] & 0xC0) == 0xC0;
    if (saved || (page != kPageCaching && page != kPageAll)) return Fail(kInvalidField);
    const std::size_t head = ten ? 8 : 4;
    Bytes data(head);
    data[ten ? 3 : 2] = image_.ReadOnly() ? 0x80 : 0x00;  // write protected
    data.insert(data.end(), {kPageCaching, 0x12});
    const bool changeable = (command[2] & 0xC0) == 0x40;
    data.push_back(changeable ? 0x00 : 0x04);  // write cache enabled, cannot be changed
    data.resize(head + 2 + 0x12);
    if (ten) {
        StoreBe16(data.data(), static_cast<std::uint16_t>(data.size() - 2));
    } else {
        data[0] = static_cast<std::uint8_t>(data.size() - 1);
    }
    return Respond(std::move(data), ten ? LoadBe16(&command[7]) : command[4]);
}

Scsi::Plan Scsi::ReadCapacity10() {
    Bytes data(8);
    const std::uint64_t last = image_.Blocks() - 1;  // all ones: ask for 16 bytes instead
    StoreBe32(data.data(), static_cast<std::uint32_t>(std::min<std::uint64_t>(last, UINT32_MAX)));
    StoreBe32(&data[4], DiskImage::kBlockSize);
    const std::size_t size = data.size();
    return Respond(std::move(data), size);
}

Scsi::Plan Scsi::ReadCapacity16(const CommandBlock& command) {
    if ((command[1] & 0x1F) != kServiceReadCapacity16) return Fail(kInvalidField);
    Bytes data(32);
    StoreBe64(data.data(), image_.Blocks() - 1);
    StoreBe32(&data[8], DiskImage::kBlockSize);
    return Respond(std::move(data), LoadBe32(&command[10]));
}

Scsi::Plan Scsi::Synchronize() {
    return image_.Sync() ? Plan{} : Fail(kWriteError);
}

Scsi::Plan Scsi::Verify(const CommandBlock& command) {
    constexpr std::uint8_t kCompareBytes = 0x06;  // would send data along; not offered
    if ((command[1] & kCompareBytes) != 0) return Fail(kInvalidField);
    return InRange(LoadBe32(&command[2]), LoadBe16(&command[7])) ? Plan{} : Fail(kOutOfRange);
}

}  // namespace remote
