// The virtual disk at the level of URBs: control requests, bulk-only transport, SCSI commands.
#include <cerrno>
#include <map>
#include <memory>
#include <optional>

#include "Pdus.h"
#include "remote/DiskImage.h"
#include "remote/UsbDisk.h"

namespace remote::test {
namespace {

constexpr std::uint32_t kBulkInEp = 1;
constexpr std::uint32_t kBulkOutEp = 2;

struct Csw {
    std::uint8_t status;
    std::uint32_t residue;
};

class DiskTest : public testing::Test, public ReplySink {
  protected:
    void SetUp() override { Plug(UsbSpeed::kHigh, false); }

    void Plug(UsbSpeed speed, bool read_only) {
        std::string error;
        auto image = DiskImage::Open(scratch_.Image(), read_only, error);
        ASSERT_TRUE(image) << error;
        disk_ = std::make_unique<UsbDisk>(std::move(*image), speed, "disk", "0123456789ABCDEF");
        disk_->Attach(*this);
        ASSERT_EQ(Control(0x00, 9, 1).status, 0) << "SET_CONFIGURATION";
    }

    void Reply(Bytes pdu) override {
        ReplyFields reply = ParseReply(pdu);
        const std::uint32_t seqnum = reply.seqnum;
        EXPECT_TRUE(replies_.emplace(seqnum, std::move(reply)).second) << "two replies";
    }

    std::uint32_t Start(Submit urb) {
        urb.seqnum = ++seqnum_;
        disk_->Command(urb.Pdu());
        return seqnum_;
    }
    bool Replied(std::uint32_t seqnum) const { return replies_.count(seqnum) != 0; }
    ReplyFields Take(std::uint32_t seqnum) {
        const auto found = replies_.find(seqnum);
        if (found == replies_.end()) {
            ADD_FAILURE() << "no reply to " << seqnum;
            return {0, seqnum, -1, 0, {}};
        }
        ReplyFields reply = std::move(found->second);
        replies_.erase(found);
        return reply;
    }

    ReplyFields Control(std::uint8_t type, std::uint8_t request, std::uint16_t value,
                        std::uint16_t index = 0, std::uint16_t length = 0) {
        Submit urb{.direction = (type & 0x80) != 0 ? kIn : kOut, .length = length};
        if (urb.direction == kOut) urb.data.resize(length);
        urb.setup = {type,
                     request,
                     static_cast<std::uint8_t>(value),
                     static_cast<std::uint8_t>(value >> 8),
                     static_cast<std::uint8_t>(index),
                     static_cast<std::uint8_t>(index >> 8),
                     static_cast<std::uint8_t>(length),
                     static_cast<std::uint8_t>(length >> 8)};
        return Take(Start(urb));
    }
    int ClearHalt(std::uint16_t endpoint) { return Control(0x02, 1, 0, endpoint).status; }
    bool Halted(std::uint16_t endpoint) { return Control(0x82, 0, 0, endpoint, 2).data.at(0) == 1; }

    std::uint32_t StartOut(const Bytes& data) {
        return Start({.endpoint = kBulkOutEp, .direction = kOut, .data = data});
    }
    std::uint32_t StartIn(std::uint32_t length, std::uint32_t flags = 0) {
        return Start({.endpoint = kBulkInEp, .direction = kIn, .length = length, .flags = flags});
    }
    ReplyFields Out(const Bytes& data) { return Take(StartOut(data)); }
    ReplyFields In(std::uint32_t length) { return Take(StartIn(length)); }

    // Reads the CSW as the kernel's driver does: a stall is cleared once.
    Csw Status() {
        ReplyFields reply = In(13);
        if (reply.status == -EPIPE && ClearHalt(0x81) == 0) reply = In(13);
        if (reply.status != 0 || reply.data.size() != 13) {
            ADD_FAILURE() << "no CSW: status " << reply.status;
            return {0xFF, 0};
        }
        EXPECT_EQ(LoadLe32(reply.data.data()), 0x53425355U);
        EXPECT_EQ(LoadLe32(&reply.data[4]), kTag);
        return {reply.data[12], LoadLe32(&reply.data[8])};
    }

    // Runs a command that is expected to send all it was asked for.
    Bytes Fetch(std::uint32_t length, const Bytes& block) {
        EXPECT_EQ(Out(Cbw(length, kIn, block)).status, 0);
        Bytes data = In(length).data;
        EXPECT_EQ(Status().status, 0);
        return data;
    }
    // The key and code that REQUEST SENSE reports.
    std::pair<int, int> Sense() {
        const Bytes sense = Fetch(18, {0x03, 0, 0, 0, 18, 0});
        return {sense.at(2), sense.at(12)};
    }

    Scratch scratch_;
    std::unique_ptr<UsbDisk> disk_;
    std::map<std::uint32_t, ReplyFields> replies_;
    std::uint32_t seqnum_ = 100;
};

TEST_F(DiskTest, ControlRequestsThatAreNotOursStall) {
    const struct {
        const char* name;
        std::uint8_t type, request;
        std::uint16_t value, index, length;
        int status;
    } cases[] = {
        {"GET_CONFIGURATION", 0x80, 8, 0, 0, 1, 0},
        {"SET_ADDRESS", 0x00, 5, 9, 0, 0, 0},
        {"GET_MAX_LUN", 0xA1, 0xFE, 0, 0, 1, 0},
        {"SET_INTERFACE 0", 0x01, 11, 0, 0, 0, 0},
        {"alternate setting 1", 0x01, 11, 1, 0, 0, -EPIPE},
        {"GET_MAX_LUN of interface 1", 0xA1, 0xFE, 0, 1, 1, -EPIPE},
        {"halt of an endpoint there is not", 0x02, 3, 0, 0x83, 0, -EPIPE},
        {"string there is not", 0x80, 6, 0x0309, 0x0409, 255, -EPIPE},
        {"configuration 2", 0x00, 9, 2, 0, 0, -EPIPE},
        {"remote wake-up", 0x00, 3, 1, 0, 0, -EPIPE},
        {"vendor request", 0xC0, 1, 0, 0, 8, -EPIPE},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(Control(one.type, one.request, one.value, one.index, one.length).status,
                  one.status)
            << one.name;
    }
}

// Host expects (n)othing, (i)n or (o)ut; the device wants to move its own amount.
TEST_F(DiskTest, ThirteenCases) {
    const Bytes ready{0x00, 0, 0, 0, 0, 0};
    const struct {
        int number;
        std::uint32_t direction, length;
        Bytes block;
        int data_status;  // of the data stage's URB
        std::uint32_t moved;
        std::uint8_t status;
        std::uint32_t residue;
    } cases[] = {
        {1, kIn, 0, ready, 0, 0, 0, 0},
        {2, kIn, 0, Read10(0, 1), 0, 0, 2, 0},
        {3, kOut, 0, Write10(0, 1), 0, 0, 2, 0},
        {4, kIn, 512, ready, -EPIPE, 0, 0, 512},
        {5, kIn, 1024, Read10(0, 1), -EPIPE, 512, 0, 512},         // ends on a whole packet
        {5, kIn, 192, {0x1A, 0, 0x3F, 0, 192, 0}, 0, 24, 0, 168},  // ends on a short one
        {6, kIn, 1024, Read10(0, 2), 0, 1024, 0, 0},
        {7, kIn, 512, Read10(0, 2), -EPIPE, 0, 2, 512},
        {8, kIn, 512, Write10(0, 1), -EPIPE, 0, 2, 512},
        {9, kOut, 512, ready, -EPIPE, 0, 0, 512},
        {10, kOut, 512, Read10(0, 1), -EPIPE, 0, 2, 512},
        {11, kOut, 1024, Write10(0, 1), -EPIPE, 512, 0, 512},
        {12, kOut, 1024, Write10(0, 2), 0, 1024, 0, 0},
        {13, kOut, 512, Write10(0, 2), -EPIPE, 0, 2, 512},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE("case " + std::to_string(one.number));
        EXPECT_EQ(Out(Cbw(one.length, one.direction, one.block)).status, 0);
        if (one.length != 0) {
            const ReplyFields data =
                one.direction == kIn ? In(one.length) : Out(Pattern(one.length));
            EXPECT_EQ(data.status, one.data_status);
            EXPECT_EQ(data.actual, one.moved);
            const std::uint16_t endpoint = one.direction == kIn ? 0x81 : 0x02;
            EXPECT_EQ(Halted(endpoint), one.data_status != 0);
            EXPECT_EQ(ClearHalt(endpoint), 0);
        }
        const Csw csw = Status();
        EXPECT_EQ(csw.status, one.status);
        EXPECT_EQ(csw.residue, one.residue);
    }
}

TEST_F(DiskTest, DataMovesInWhateverPiecesComeAndReadsBack) {
    const Bytes written = Pattern(4096, 99);
    EXPECT_EQ(Out(Cbw(4096, kOut, Write10(10, 8))).status, 0);
    for (std::size_t at = 0; at < 4096;) {
        const std::size_t size = std::min<std::size_t>(at == 0 ? 512 : 1536, 4096 - at);
        const auto from = written.begin() + static_cast<std::ptrdiff_t>(at);
        EXPECT_EQ(Out({from, from + static_cast<std::ptrdiff_t>(size)}).actual, size);
        at += size;
    }
    EXPECT_EQ(Status().residue, 0U);
    EXPECT_EQ(scratch_.Content(5120, 4096), written);

    EXPECT_EQ(Out(Cbw(4096, kIn, Read10(10, 8))).status, 0);
    Bytes read = In(3072).data;
    const Bytes rest = In(1024).data;
    read.insert(read.end(), rest.begin(), rest.end());
    EXPECT_EQ(read, written);
    EXPECT_EQ(Status().status, 0);
    EXPECT_EQ(Out(Cbw(0, kOut, Bytes{0x35, 0, 0, 0, 0, 0, 0, 0, 0, 0})).status, 0);
    EXPECT_EQ(Status().status, 0) << "SYNCHRONIZE CACHE";
}

TEST_F(DiskTest, InvalidCbwHaltsBothEndpointsUntilReset) {
    const Bytes good = Cbw(512, kIn, Read10(0, 1));
    const auto changed = [&](std::size_t at, std::uint8_t value) {
        Bytes cbw = good;
        cbw[at] = value;
        return cbw;
    };
    const Bytes cases[] = {{good.begin(), good.end() - 1},
                           changed(0, 'X'),
                           changed(12, 0x81),
                           changed(13, 1),
                           changed(14, 0),
                           changed(14, 17),
                           Bytes(32),
                           Bytes{}};
    for (const Bytes& cbw : cases) {
        EXPECT_EQ(Out(cbw).status, -EPIPE);
        EXPECT_EQ(ClearHalt(0x81), 0);
        EXPECT_EQ(ClearHalt(0x02), 0);
        EXPECT_EQ(In(13).status, -EPIPE) << "halted in spite of CLEAR_FEATURE";
        EXPECT_EQ(Out(good).status, -EPIPE);
        EXPECT_EQ(Control(0x21, 0xFF, 0).status, 0) << "Bulk-Only Reset";
        EXPECT_TRUE(Halted(0x81) && Halted(0x02)) << "the reset alone clears no halt";
        EXPECT_EQ(ClearHalt(0x81), 0);
        EXPECT_EQ(ClearHalt(0x02), 0);
        EXPECT_EQ(Fetch(512, Read10(3, 1)), scratch_.Content(3 * 512, 512));
    }
}

TEST_F(DiskTest, ScsiRefusalsCarryTheirSense) {
    const auto wide = [](std::uint8_t operation, std::uint64_t block, std::uint32_t blocks) {
        Bytes command(16);
        command[0] = operation;
        StoreBe64(&command[2], block);
        StoreBe32(&command[10], blocks);
        return command;
    };
    const auto flagged = [](Bytes command, std::uint8_t flags) {
        command[1] = flags;
        return command;
    };
    const std::uint32_t end = Scratch::kBlocks;
    const std::pair<int, int> invalid{5, 0x24}, range{5, 0x21}, unknown{5, 0x20}, none{0, 0};
    const struct {
        const char* name;
        Bytes block;
        std::pair<int, int> sense;
    } cases[] = {
        {"unknown operation", {0x04, 0, 0, 0, 0, 0}, unknown},
        {"read of nothing", Read10(0, 0), none},
        {"read of nothing behind the end", Read10(end, 0), range},
        {"read across the end", Read10(end - 1, 2), range},
        {"read far behind", Read10(0xFFFFFFFF, 0xFFFF), range},
        {"write across the end", Write10(end - 1, 2), range},
        {"wide read that wraps", wide(0x88, UINT64_MAX, 2), range},
        {"wide read of 2 TiB", wide(0x88, 0, UINT32_MAX), range},
        {"wide write that wraps", wide(0x8A, UINT64_MAX / 512, 0xFFFF), range},
        {"read with protection", flagged(Read10(0, 1), 0x20), invalid},
        {"forced unit access", flagged(Write10(0, 1), 0x08), invalid},
        {"verify", Transfer10(0x2F, end - 2, 2), none},
        {"verify across the end", Transfer10(0x2F, end - 2, 3), range},
        {"verify with data", flagged(Transfer10(0x2F, 0, 1), 0x02), invalid},
        {"page without EVPD", {0x12, 0, 0x80, 0, 255, 0}, invalid},
        {"unknown vital page", {0x12, 1, 0x99, 0, 255, 0}, invalid},
        {"unknown mode page", {0x1A, 0, 0x05, 0, 255, 0}, invalid},
        {"unknown service action", wide(0x9E, 0, 0), invalid},
        {"start", {0x1B, 0, 0, 0, 1, 0}, none},
        {"prevent removal", {0x1E, 0, 0, 0, 1, 0}, none},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name);
        EXPECT_EQ(Out(Cbw(0, kOut, one.block)).status, 0);
        EXPECT_EQ(Status().status, one.sense == none ? 0 : 1);
        EXPECT_EQ(Sense(), one.sense);
        EXPECT_EQ(Sense(), none) << "sense is told once";
    }
}

TEST_F(DiskTest, ReadOnlyDiskSaysSoAndRefusesWrites) {
    const Bytes mode{0x5A, 0, 0x3F, 0, 0, 0, 0, 0, 28, 0};
    EXPECT_EQ(Fetch(28, mode).at(3), 0x00);
    Plug(UsbSpeed::kHigh, true);
    EXPECT_EQ(Fetch(28, mode).at(3), 0x80);
    const Bytes before = scratch_.Content(0, 512);
    EXPECT_EQ(Out(Cbw(512, kOut, Write10(0, 1))).status, 0);
    EXPECT_EQ(Out(Bytes(512)).status, -EPIPE);
    EXPECT_EQ(Status().status, 1);
    EXPECT_EQ(Out(Bytes(31)).status, -EPIPE) << "OUT is still halted";
    EXPECT_EQ(ClearHalt(0x02), 0);
    EXPECT_EQ(Sense(), (std::pair{7, 0x27}));
    EXPECT_EQ(scratch_.Content(0, 512), before);
}

TEST_F(DiskTest, AnImageThatShrinksIsAMediumError) {
    std::filesystem::resize_file(scratch_.Image(), 512);
    EXPECT_EQ(Out(Cbw(1024, kIn, Read10(0, 2))).status, 0);
    EXPECT_EQ(In(512).data.size(), 512U);
    EXPECT_EQ(In(512).status, -EPIPE);
    const Csw csw = Status();
    EXPECT_EQ(csw.status, 1);
    EXPECT_EQ(csw.residue, 512U);
    EXPECT_EQ(Sense(), (std::pair{3, 0x11}));
}

TEST_F(DiskTest, UrbsWaitForTheirStageAndCanBeUnlinked) {
    const std::uint32_t early = StartIn(512);
    const std::uint32_t doomed = StartIn(13);
    EXPECT_FALSE(Replied(early));
    disk_->Command(UnlinkPdu(++seqnum_, doomed));
    EXPECT_EQ(Take(seqnum_).status, -ECONNRESET);
    const std::uint32_t status = StartIn(13);
    EXPECT_EQ(Out(Cbw(512, kIn, Read10(1, 1))).status, 0);
    EXPECT_EQ(Take(early).data, scratch_.Content(512, 512));
    EXPECT_EQ(Take(status).data.size(), 13U);
    EXPECT_FALSE(Replied(doomed)) << "an unlinked URB has no reply of its own";

    disk_->Command(UnlinkPdu(++seqnum_, early));
    EXPECT_EQ(Take(seqnum_).status, 0) << "it had completed";
    for (const std::uint32_t unknown : {7U, seqnum_ + 1000}) {
        disk_->Command(UnlinkPdu(++seqnum_, unknown));
        const ReplyFields reply = Take(seqnum_);
        EXPECT_EQ(reply.command, USBIP_RET_UNLINK);
        EXPECT_EQ(reply.status, -ECONNRESET) << "never seen: " << unknown;
    }
}

TEST_F(DiskTest, ANewAttachmentKnowsNothingOfTheOldOne) {
    const std::uint32_t waiting = StartIn(13);
    disk_->Detach();
    disk_->Attach(*this);
    disk_->Command(UnlinkPdu(++seqnum_, waiting));
    EXPECT_EQ(Take(seqnum_).status, -ECONNRESET);
    EXPECT_FALSE(Replied(waiting));
    EXPECT_EQ(In(13).status, -EPIPE) << "not configured any more";
}

// The storage driver of older kernels queues several URBs for one data stage.
TEST_F(DiskTest, StatusIsKeptFromUrbsOfAStageThatEndedShort) {
    const std::uint32_t first = StartIn(512, kShortNotOk);
    const std::uint32_t second = StartIn(512, kShortNotOk);
    EXPECT_EQ(Out(Cbw(1024, kIn, {0x12, 0, 0, 4, 0, 0})).status, 0);
    const ReplyFields reply = Take(first);
    EXPECT_EQ(reply.status, -EREMOTEIO);
    EXPECT_EQ(reply.data.size(), 36U);
    EXPECT_FALSE(Replied(second));
    disk_->Command(UnlinkPdu(++seqnum_, second));
    EXPECT_EQ(Take(seqnum_).status, -ECONNRESET);
    EXPECT_EQ(Status().residue, 1024U - 36);
}

TEST_F(DiskTest, WaitingAndTransferSizesAreBounded) {
    const auto too_long = static_cast<std::uint32_t>(UsbDisk::kMaxTransfer + 1);
    EXPECT_EQ(In(too_long).status, -ENOMEM);
    EXPECT_EQ(In(0xFFFFFFFF).status, -ENOMEM);
    int waiting = 0;
    while (waiting < 100 && !Replied(StartIn(UsbDisk::kMaxTransfer)))
        ++waiting;
    EXPECT_EQ(waiting, 1) << "of 32 MiB, less two headers";
    EXPECT_EQ(Take(seqnum_).status, -ENOMEM);
    disk_->Command(UnlinkPdu(seqnum_ + 1, seqnum_ - 1));
    ++seqnum_;
    EXPECT_FALSE(Replied(StartIn(UsbDisk::kMaxTransfer))) << "the unlinked one has made room";
}

TEST(DiskImage, OnlyPlainFilesOfWholeBlocksAreDisks) {
    const Scratch scratch;
    const struct {
        std::string path;
        std::size_t size;
        const char* error;
    } cases[] = {{scratch.Path("none"), 512, "No such file"},
                 {scratch.Path("."), 512, "directory"},
                 {scratch.Image(), 0, "not a multiple"},
                 {scratch.Image(), 513, "not a multiple"},
                 {"/dev/null", 512, "not a plain file"}};
    for (const auto& one : cases) {
        scratch.Fill(one.size);
        std::string error;
        EXPECT_FALSE(DiskImage::Open(one.path, false, error));
        EXPECT_NE(error.find(one.error), std::string::npos) << error;
    }
}

}  // namespace
}  // namespace remote::test
