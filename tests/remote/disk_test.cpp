// The virtual disk at the level of URBs: control requests, bulk-only transport, SCSI commands.
#include <tuple>

#include "DiskTest.h"

namespace remote::test {
namespace {

TEST_F(DiskTest, ControlRequestsThatAreNotOursStall) {
    for (const char* ours : {"80 08 00 00 00 00 01 00", "00 05 09 00 00 00 00 00",
                             "A1 FE 00 00 00 00 01 00", "01 0B 00 00 00 00 00 00"})
        EXPECT_EQ(Control(ours), 0) << ours;
    const std::pair<const char*, const char*> cases[] = {
        {"alternate setting 1", "01 0B 01 00 00 00 00 00"},
        {"GET_MAX_LUN of interface 1", "A1 FE 00 00 01 00 01 00"},
        {"halt of an endpoint there is not", "02 03 00 00 83 00 00 00"},
        {"string there is not", "80 06 09 03 09 04 FF 00"},
        {"configuration 2", "00 09 02 00 00 00 00 00"},
    };
    for (const auto& [name, setup] : cases)
        EXPECT_EQ(Control(setup), -EPIPE) << name;
}

// Host expects nothing, in or out; the device wants to move its own amount.
TEST_F(DiskTest, ThirteenCases) {
    const std::string ready(6, '\0');
    const std::tuple<int, bool, std::uint32_t, std::string, const char*> cases[] = {
        {1, kIn, 0, ready, "passed 0"},
        {2, kIn, 0, Block10(kRead, 0, 1), "phase error 0"},
        {3, kOut, 0, Block10(kWrite, 0, 1), "phase error 0"},
        {4, kIn, 512, ready, "stall 0, passed 512"},
        {5, kIn, 1024, Block10(kRead, 0, 1), "stall 512, passed 512"},     // ends on a whole packet
        {5, kIn, 192, FromHex("1A 00 3F 00 C0 00"), "ok 24, passed 168"},  // ends on a short one
        {6, kIn, 1024, Block10(kRead, 0, 2), "ok 1024, passed 0"},
        {7, kIn, 512, Block10(kRead, 0, 2), "stall 0, phase error 512"},
        {8, kIn, 512, Block10(kWrite, 0, 1), "stall 0, phase error 512"},
        {9, kOut, 512, ready, "stall 0, passed 512"},
        {10, kOut, 512, Block10(kRead, 0, 1), "stall 0, phase error 512"},
        {11, kOut, 1024, Block10(kWrite, 0, 1), "stall 512, passed 512"},
        {12, kOut, 1024, Block10(kWrite, 0, 2), "ok 1024, passed 0"},
        {13, kOut, 512, Block10(kWrite, 0, 2), "stall 0, phase error 512"},
    };
    for (const auto& [number, in, length, block, outcome] : cases)
        EXPECT_EQ(Run(in, length, block), outcome) << "case " << number;
}

TEST_F(DiskTest, DataMovesInWhateverPiecesCome) {
    const std::string pieces[] = {std::string(512, 'a'), std::string(1536, 'b'),
                                  std::string(2048, 'c')};
    Out(Cbw(kOut, 4096, Block10(kWrite, 10, 8)));
    for (const std::string& piece : pieces)
        EXPECT_EQ(Out(piece).actual, piece.size());
    EXPECT_EQ(Status(), "passed 0");

    Out(Cbw(kIn, 4096, Block10(kRead, 10, 8)));
    for (const std::string& piece : pieces)
        EXPECT_EQ(In(static_cast<std::uint32_t>(piece.size())).data, piece);
    EXPECT_EQ(Status(), "passed 0");
}

TEST_F(DiskTest, InvalidCbwHaltsBothEndpointsUntilReset) {
    const std::string good = Cbw(kIn, 512, Block10(kRead, 0, 1));
    std::vector<std::string> cases{"", good.substr(0, 30), good + '\0'};
    for (const auto& [at, value] :
         {std::pair{0U, 'X'}, {12U, '\x81'}, {13U, '\1'}, {14U, '\0'}, {14U, '\x11'}})
        cases.push_back(std::string(good).replace(at, 1, 1, value));
    for (const std::string& cbw : cases) {
        EXPECT_EQ(Out(cbw).status, -EPIPE);
        ClearHalts();
        EXPECT_TRUE(Halted(kInAddress) && Halted(kOutAddress)) << "CLEAR_FEATURE is not enough";
        EXPECT_EQ(Out(good).status, -EPIPE);
        EXPECT_EQ(Control("21 FF 00 00 00 00 00 00"), 0) << "Bulk-Only Reset";
        EXPECT_TRUE(Halted(kInAddress) && Halted(kOutAddress)) << "the reset alone clears no halt";
        ClearHalts();
        EXPECT_EQ(Fetch(512, Block10(kRead, 3, 1)), Content(3));
    }
}

TEST_F(DiskTest, ScsiRefusalsCarryTheirSense) {
    const std::pair<int, int> invalid{5, 0x24}, range{5, 0x21}, unknown{5, 0x20}, none{0, 0};
    const std::tuple<const char*, std::string, std::pair<int, int>> cases[] = {
        {"unknown operation", FromHex("04 00 00 00 00 00"), unknown},
        {"read of nothing", Block10(kRead, 0, 0), none},
        {"read of nothing behind the end", Block10(kRead, kBlocks, 0), range},
        {"read across the end", Block10(kRead, kBlocks - 1, 2), range},
        {"write across the end", Block10(kWrite, kBlocks - 1, 2), range},
        {"wide read far behind", FromHex("88 00 00 00 00 01 00 00 00 00 00 00 00 01 00 00"), range},
        {"wide read of 2 TiB", FromHex("88 00 00 00 00 00 00 00 00 00 FF FF FF FF 00 00"), range},
        {"wide write behind", FromHex("8A 00 00 00 00 01 00 00 00 00 00 00 00 01 00 00"), range},
        {"read with protection", Block10(kRead, 0, 1, 0x20), invalid},
        {"forced unit access", Block10(kWrite, 0, 1, 0x08), invalid},
        {"verify", Block10(kVerify, kBlocks - 2, 2), none},
        {"verify across the end", Block10(kVerify, kBlocks - 2, 3), range},
        {"verify with data", Block10(kVerify, 0, 1, 0x02), invalid},
        {"page without EVPD", FromHex("12 00 80 00 FF 00"), invalid},
        {"unknown vital page", FromHex("12 01 99 00 FF 00"), invalid},
        {"unknown mode page", FromHex("1A 00 05 00 FF 00"), invalid},
        {"unknown service action", FromHex("9E 00 00 00 00 00 00 00 00 00"), invalid},
        {"synchronize cache", FromHex("35 00 00 00 00 00 00 00 00 00"), none},
    };
    for (const auto& [name, block, sense] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(Run(kOut, 0, block), sense == none ? "passed 0" : "failed 0");
        EXPECT_EQ(Sense(), sense);
        EXPECT_EQ(Sense(), none) << "sense is told once";
    }
}

TEST_F(DiskTest, ReadOnlyDiskSaysSoAndRefusesWrites) {
    Plug(true);
    EXPECT_EQ(Fetch(28, FromHex("5A 00 3F 00 00 00 00 00 1C 00")).at(3), '\x80');
    EXPECT_EQ(Run(kOut, 512, Block10(kWrite, 1, 1)), "stall 0, failed 512");
    EXPECT_EQ(Sense(), (std::pair{7, 0x27}));
}

TEST_F(DiskTest, AnImageThatShrinksIsAMediumError) {
    EXPECT_EQ(ftruncate(file_.Get(), 512), 0);
    Out(Cbw(kIn, 1024, Block10(kRead, 0, 2)));
    EXPECT_EQ(In(512).status, 0);
    EXPECT_EQ(In(512).status, -EPIPE);
    ClearHalts();
    EXPECT_EQ(Status(), "failed 512");
    EXPECT_EQ(Sense(), (std::pair{3, 0x11}));
}

TEST_F(DiskTest, UrbsWaitForTheirStageAndCanBeUnlinked) {
    const std::uint32_t early = StartIn(512), doomed = StartIn(13);
    EXPECT_EQ(Unlink(doomed), -ECONNRESET);
    const std::uint32_t status = StartIn(13);
    Out(Cbw(kIn, 512, Block10(kRead, 1, 1)));
    EXPECT_EQ(Take(early).data, Content(1));
    EXPECT_EQ(Take(status).data.size(), 13U);
    EXPECT_FALSE(Answered(doomed)) << "an unlinked URB has no reply of its own";
    EXPECT_EQ(Unlink(early), 0) << "it had completed";
    for (const std::uint32_t unknown : {7U, seqnum_ + 1000})
        EXPECT_EQ(Unlink(unknown), -ECONNRESET) << "never seen: " << unknown;
}

TEST_F(DiskTest, ANewAttachmentKnowsNothingOfTheOldOne) {
    const std::uint32_t waiting = StartIn(13);
    disk_->Detach();
    disk_->Attach(*this);
    EXPECT_EQ(In(13).status, -EPIPE) << "not configured any more";
    EXPECT_EQ(Control("00 09 01 00 00 00 00 00"), 0);
    EXPECT_EQ(Run(kOut, 0, Block10(kRead, 0, 0)), "passed 0");
    EXPECT_EQ(Unlink(waiting), -ECONNRESET);
    EXPECT_FALSE(Answered(waiting));
}

// The storage driver of older kernels queues several URBs for one data stage.
TEST_F(DiskTest, StatusIsKeptFromUrbsOfAStageThatEndedShort) {
    const std::uint32_t first = StartIn(512, kShortNotOk), second = StartIn(512, kShortNotOk);
    Out(Cbw(kIn, 1024, FromHex("12 00 00 04 00 00")));
    const Answer answer = Take(first);
    EXPECT_EQ(answer.status, -EREMOTEIO);
    EXPECT_EQ(answer.data.size(), 36U);
    const std::uint32_t status = StartIn(13);
    EXPECT_FALSE(Answered(status)) << "has overtaken another URB";
    EXPECT_EQ(Unlink(second), -ECONNRESET);
    EXPECT_EQ(Take(status).data.substr(8), ::Bytes(1024U - 36) + '\0');
}

TEST_F(DiskTest, WaitingAndTransferSizesAreBounded) {
    constexpr std::uint32_t kMost = UsbDisk::kMaxTransfer;
    for (const std::uint32_t too_long : {kMost + 1, 0xFFFFFFFF})
        EXPECT_EQ(In(too_long).status, -ENOMEM);
    const auto fill = [this] {
        int waiting = 0;
        while (waiting < 100 && !Answered(StartIn(kMost)))
            ++waiting;
        EXPECT_EQ(Take(seqnum_).status, -ENOMEM);
        return waiting;
    };
    EXPECT_EQ(fill(), 1) << "of 32 MiB, less two headers";
    EXPECT_EQ(Unlink(seqnum_ - 1), -ECONNRESET);
    EXPECT_EQ(fill(), 1) << "the unlinked one has made room";
    Out(Cbw(kIn, 512, Block10(kRead, 0, 1)));
    EXPECT_EQ(Status(), "passed 0");
    EXPECT_EQ(fill(), 1) << "the answered one has made room";
}

TEST_F(DiskTest, OnlyPlainFilesOfWholeBlocksAreImages) {
    const std::tuple<off_t, std::string, const char*> cases[] = {
        {512, "/nowhere", "No such file"},
        {512, "/dev/null", "not a plain file"},
        {0, path_, "not a multiple"},
        {513, path_, "not a multiple"}};
    for (const auto& [size, path, expected] : cases) {
        EXPECT_EQ(ftruncate(file_.Get(), size), 0);
        std::string error;
        EXPECT_FALSE(DiskImage::Open(path, false, error));
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

}  // namespace
}  // namespace remote::test
