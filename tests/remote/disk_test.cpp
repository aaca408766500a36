// The virtual disk: control requests, bulk-only transport and SCSI commands as URBs, and its image.
#include <sys/fsuid.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "DiskTest.h"
#include "remote/disk/DiskSerial.h"

static int syncs = 0, sync_result = 0;

extern "C" int fdatasync(int) {
    ++syncs;
    errno = EIO;
    return sync_result;
}

namespace remote::test {

constexpr char kReadOne[] = "28 00 00 00 00 01 00 00 01 00";  // block
constexpr char kWriteOne[] = "2A 00 00 00 00 01 00 00 01 00";

std::string Hex(std::string_view bytes) {  // ", 0C 00 FF"
    std::string text;
    char digits[4];
    for (const char byte : bytes) {
        std::snprintf(digits, sizeof digits, " %02X", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

TEST_F(DiskTest, AnswersAsItIsWritten) {
    const std::regex step(R"((\w+)(?: (\d+))?: ([0-9A-F ]*) =(.*))");
    for (const std::string speed : {"high", "super"}) {
        Plug(speed == "high" ? UsbSpeed::kHigh : UsbSpeed::kSuper);
        std::ifstream lines(XJ_DISK_ANSWERS);
        ASSERT_TRUE(lines);
        for (std::string line; std::getline(lines, line);) {
            std::smatch match;
            if (line.starts_with("size "))
                std::filesystem::resize_file(path_, std::stoull(line.substr(5)));
            if (line == "read-only") Plug(UsbSpeed::kHigh, true);
            if (line.find('=') == line.npos || line[0] == '#') continue;
            ASSERT_TRUE(std::regex_match(line, match, step)) << line;
            const std::string kind = match[1], length = match[2], bytes = match[3], want = match[4];
            std::string outcome;
            if (!length.empty()) {
                data_.clear();
                const auto size = static_cast<std::uint32_t>(std::stoul(length));
                outcome = " " + Run(kind == "in", size, bytes);
                if (!data_.empty() && data_.size() < 255) outcome += "," + Hex(data_);
                if (want.find("sense") != want.npos) outcome += ", sense" + Hex(Sense());
            } else if (kind == "both" || kind == speed) {
                outcome = Control(bytes);
                outcome = outcome == "stall" ? " stall" : Hex(outcome);
            } else {
                continue;
            }
            EXPECT_EQ(outcome, want) << line;
        }
    }
}

TEST_F(DiskTest, DataMovesInWhateverPiecesCome) {
    const std::vector<std::string> pieces{Content('a'), std::string(1536, 'b'), Content('c')};
    Out(Cbw(kOut, 2560, "2A 00 00 00 00 0A 00 00 05 00"));
    for (const std::string& piece : pieces)
        EXPECT_EQ(Out(piece).actual, piece.size());
    EXPECT_EQ(Status(), "passed 0");

    Out(Cbw(kIn, 2560, "28 00 00 00 00 0A 00 00 05 00"));
    for (const std::string& piece : pieces)
        EXPECT_EQ(In(static_cast<std::uint32_t>(piece.size())).data, piece);
    EXPECT_EQ(In(12).status, -EPIPE) << "no room for the status";
    ClearHalts();
    EXPECT_EQ(Status(), "passed 0");

    Out(Cbw(kOut, 512, kWriteOne));
    EXPECT_EQ(Out(std::string(1024, 'x')).actual, 512U);
    EXPECT_TRUE(Halted(kOut)) << "more than was announced";
    EXPECT_EQ(Status(), "passed 0");
}

TEST_F(DiskTest, InvalidCbwHaltsBothEndpointsUntilReset) {
    const std::string good = Cbw(kIn, 512, kReadOne);
    std::vector<std::string> cases{"", good.substr(0, 30), good + '\0'};
    for (const auto& [at, value] :
         {std::pair{0U, 'X'}, {12U, '\x81'}, {13U, '\1'}, {14U, '\0'}, {14U, '\x11'}})
        cases.push_back(std::string(good).replace(at, 1, 1, value));
    for (const std::string& cbw : cases) {
        EXPECT_EQ(Out(cbw).status, -EPIPE);
        ClearHalts();
        EXPECT_TRUE(Halted(kIn) && Halted(kOut)) << "CLEAR_FEATURE is not enough";
        EXPECT_EQ(Out(good).status, -EPIPE);
        EXPECT_EQ(Control("21 FF 00 00 00 00 00 00"), "") << "Bulk-Only Reset";
        EXPECT_TRUE(Halted(kIn) && Halted(kOut)) << "the reset alone clears no halt";
        ClearHalts();
        EXPECT_EQ(Fetch(kReadOne, 512), Content(1));
    }
}

TEST_F(DiskTest, UrbsWaitForTheirStageAndCanBeUnlinked) {
    const std::uint32_t early = StartIn(512), doomed = StartIn(13);
    EXPECT_EQ(Unlink(doomed), -ECONNRESET);
    const std::uint32_t status = StartIn(13);
    Out(Cbw(kIn, 512, kReadOne));
    EXPECT_EQ(Take(early).data, Content(1));
    EXPECT_EQ(Take(status).data.size(), 13U);
    EXPECT_EQ(Take(doomed).status, kNone) << "an unlinked URB has no reply of its own";
    EXPECT_EQ(Unlink(early), 0) << "it had completed";
    for (const std::uint32_t unknown : {7U, seqnum_ + 1000})
        EXPECT_EQ(Unlink(unknown), -ECONNRESET) << "never seen: " << unknown;

    const std::uint32_t waiting = StartIn(13);
    disk_->Detach();
    Attach();
    EXPECT_EQ(Run(kOut, 0, "00 00 00 00 00 00"), "passed 0");
    EXPECT_EQ(Unlink(waiting), -ECONNRESET) << "of the attachment before";
    EXPECT_EQ(Take(waiting).status, kNone);
}

// The storage driver of older kernels queues several URBs for one data stage.
TEST_F(DiskTest, StatusIsKeptFromUrbsOfAStageThatEndedShort) {
    const std::uint32_t first = StartIn(512, 1), second = StartIn(512, 1) /* short is an error */;
    Out(Cbw(kIn, 1024, "12 00 00 04 00 00"));
    const Answer answer = Take(first);
    EXPECT_EQ(answer.status, -EREMOTEIO);
    EXPECT_EQ(answer.data.size(), 36U);
    const std::uint32_t status = StartIn(13);
    EXPECT_EQ(answers_[status].status, kNone) << "has overtaken another URB";
    EXPECT_EQ(Unlink(second), -ECONNRESET);
    EXPECT_EQ(Take(status).data.substr(8), ::Bytes(1024U - 36) + '\0');
}

TEST_F(DiskTest, WhatAUrbMayAskForIsBounded) {
    const std::string device = "80 06 00 01 00 00 12 00";
    EXPECT_EQ(Control(device, kIn, 8).size(), 8U) << "room for 8 of 18";
    EXPECT_EQ(Control(device, kOut, 18), "stall");
    EXPECT_EQ(Out("data", std::string(16, 'p')).status, -EINVAL) << "isochronous";
    constexpr std::uint32_t kMost = UsbDisk::kMaxTransfer;
    for (const std::uint32_t too_long : {kMost + 1, 0xFFFFFFFF})
        EXPECT_EQ(In(too_long).status, -ENOMEM);
    for (const bool unlinked : {true, false, false}) {
        EXPECT_EQ(In(kMost).status, kNone) << "the one before has not made room";
        EXPECT_EQ(In(kMost).status, -ENOMEM) << "of 32 MiB, less two headers";
        if (unlinked) {
            EXPECT_EQ(Unlink(seqnum_ - 1), -ECONNRESET);
        } else {
            Out(Cbw(kIn, 512, kReadOne));
            EXPECT_EQ(Status(), "passed 0");
        }
    }
}

// Opens an image. Returns what is wrong with it, or nothing.
std::string Open(const std::string& path, bool read_only = false) {
    std::string error;
    return DiskImage::Open(path, read_only, error) ? "" : error;
}

TEST_F(DiskTest, OnlyPlainFilesOfWholeBlocksAreImagesAndWhoWritesIsAlone) {
    for (const bool first_reads : {false, true}) {
        Plug(UsbSpeed::kHigh, first_reads);
        ExpectIn(Open(path_), "in use, by another program or as another disk of this one");
        ExpectIn(Open(path_, true), first_reads ? "" : "in use by somebody who writes to it");
    }
    EXPECT_EQ(Open(path_, true), "");
    disk_.reset();
    EXPECT_EQ(Open(path_), "");
    const std::string pipe = testing::TempDir() + "pipe-" + std::to_string(getpid());
    EXPECT_EQ(mkfifo(pipe.c_str(), S_IRUSR), 0);
    EXPECT_EQ(Open(pipe, true), pipe + ": not a plain file");
    unlink(pipe.c_str());
    EXPECT_EQ(Open("/nowhere"), "/nowhere: No such file or directory");
    fchmod(file_.Get(), S_IRUSR | S_IRGRP | S_IROTH);
    const int user = setfsuid(65534);  // root may do everything
    ExpectIn(Open(path_), "it can be read: offer it with ,ro");
    setfsuid(static_cast<uid_t>(user));
    for (const off_t size : {0, 513}) {
        EXPECT_EQ(ftruncate(file_.Get(), size), 0);
        ExpectIn(Open(path_, true), "is not a multiple of 512 bytes above 0");
    }
}

// A host that stops the unit, and one that just goes.
TEST_F(DiskTest, DataThatCouldNotBeMadeSafeIsTold) {
    for (const auto& [stops, result] : {std::pair{true, 0}, {true, -1}, {false, 0}, {false, -1}}) {
        syncs = 0;
        sync_result = result;
        Plug();
        EXPECT_EQ(Run(kOut, 512, kWriteOne), "ok 512, passed 0");
        if (stops) {
            EXPECT_EQ(Run(kOut, 0, "1B 00 00 00 00 00"), result == 0 ? "passed 0" : "failed 0");
            sync_result = 0;  // the kernel tells of it once
        }
        disk_->Detach();
        EXPECT_EQ(disk_->DataSafe(), result == 0);
        EXPECT_EQ(syncs, 1);
    }
}

TEST(DiskSerial, TellsImagesAndMachinesApart) {
    const std::string serial = DiskSerial("/a/disk.img", "one");
    EXPECT_TRUE(std::regex_match(serial, std::regex("[0-9A-F]{16}"))) << serial;
    EXPECT_EQ(DiskSerial("/a/../a/disk.img", "one"), serial);
    EXPECT_NE(DiskSerial("/b/disk.img", "one"), serial);
    EXPECT_NE(DiskSerial("/a/disk.img", "two"), serial);
    EXPECT_NE(MachineName(), "");
}

}  // namespace remote::test
