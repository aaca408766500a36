// A virtual disk and its host: URBs and unlinks, the bulk-only transport as the kernel's storage
// driver speaks it, and what SCSI commands come to.
#pragma once

#include <sys/mman.h>

#include <cerrno>
#include <map>
#include <memory>
#include <vector>

#include "Pdus.h"
#include "remote/disk/UsbDisk.h"

namespace remote::test {

inline constexpr bool kIn = true;
inline constexpr bool kOut = false;
inline const std::string kInAddress = "81";  // as in requests on endpoint 0
inline const std::string kOutAddress = "02";
inline constexpr std::uint32_t kShortNotOk = 1;  // a transfer flag
inline constexpr std::uint16_t kBlocks = 200;    // of the disk
inline const std::string kTag = "tag.";

// A command that expects `length` bytes in this direction.
inline std::string Cbw(bool in, std::uint32_t length, std::string block) {
    const char fields[] = {static_cast<char>(in ? 0x80 : 0), 0, static_cast<char>(block.size())};
    block.resize(16);
    return "USBC" + kTag + ::Bytes(htole32(length)) + std::string(fields, 3) + block;
}

// A command block of 10 bytes with an address and a count of blocks.
enum Operation : char { kRead = 0x28, kWrite = 0x2A, kVerify = 0x2F };
inline std::string Block10(Operation operation, std::uint32_t block, std::uint16_t blocks,
                           char flags = 0) {
    return std::string{operation, flags} + ::Bytes(htobe32(block)) + '\0' +
           ::Bytes(htobe16(blocks)) + '\0';
}

class DiskTest : public testing::Test, public ReplySink {
  protected:
    struct Answer {  // to a URB or an unlink
        int status = -1;
        std::uint32_t actual = 0;
        std::string data = {};
    };

    DiskTest() {
        for (std::uint16_t block = 0; block < kBlocks; ++block)
            EXPECT_EQ(write(file_.Get(), Content(block).data(), 512), 512);
        Plug(false);
    }
    void Plug(bool read_only) {
        std::string error;
        auto image = DiskImage::Open(path_, read_only, error);
        EXPECT_TRUE(image) << error;
        disk_ = std::make_unique<UsbDisk>(std::move(image).value(), UsbSpeed::kHigh, "disk",
                                          "0123456789ABCDEF");
        disk_->Attach(*this);
        EXPECT_EQ(Control("00 09 01 00 00 00 00 00"), 0) << "SET_CONFIGURATION";
    }
    // Of a block that has not been written.
    static std::string Content(int block) { return std::string(512, static_cast<char>(block)); }

    // --- URBs: these return their sequence number, or else their answer ---

    std::uint32_t Start(const std::string& pdu) {
        disk_->TakeCommand(Decoded(pdu));
        return seqnum_;
    }
    std::uint32_t StartIn(std::uint32_t length, std::uint32_t flags = 0) {
        const std::string pdu = With(kEndpoint, 1, SubmitIn(++seqnum_, length));
        return Start(With(offsetof(usbip_header, u.cmd_submit.transfer_flags), flags, pdu));
    }
    Answer In(std::uint32_t length) { return Take(StartIn(length)); }
    Answer Out(const std::string& data) {
        return Take(Start(With(kEndpoint, 2, SubmitOut(++seqnum_, data))));
    }
    int Unlink(std::uint32_t target) {
        return Take(Start(With(kTarget, target, ::Unlink(++seqnum_)))).status;
    }

    void Reply(remote::Bytes pdu) override {
        const auto header = LoadRaw<usbip_header>(pdu.data());
        const Answer answer{static_cast<int>(be32toh(header.u.ret_submit.status)),
                            be32toh(header.u.ret_submit.actual_length),
                            {pdu.begin() + sizeof header, pdu.end()}};
        EXPECT_EQ(header.u.ret_submit.number_of_packets, 0U);
        EXPECT_TRUE(answers_.emplace(be32toh(header.seqnum), answer).second) << "two answers";
    }
    bool Answered(std::uint32_t seqnum) const { return answers_.count(seqnum) != 0; }
    Answer Take(std::uint32_t seqnum) {
        auto answer = answers_.extract(seqnum);
        EXPECT_TRUE(answer) << "no answer to " << seqnum;
        return answer ? answer.mapped() : Answer{};
    }

    // --- requests on endpoint 0 ---

    // `text`: the 8 bytes of the setup packet.
    int Control(const std::string& text) {
        const std::string setup = FromHex(text);
        const auto length = le16toh(Parse<std::uint16_t>(setup.substr(6)));
        std::string pdu = SubmitOut(++seqnum_, std::string(length, '\0'));
        if ((setup[0] & 0x80) != 0) pdu = SubmitIn(seqnum_, length);
        const Answer answer = Take(Start(pdu.replace(kSetup, setup.size(), setup)));
        data_ = answer.data;
        return answer.status;
    }
    bool Halted(const std::string& address) {
        return Control("82 00 00 00 " + address + " 00 02 00") == 0 && data_.at(0) == 1;
    }
    void ClearHalts() {
        for (const std::string& address : {kInAddress, kOutAddress})
            EXPECT_EQ(Control("02 01 00 00 " + address + " 00 00 00"), 0);
    }

    // --- commands ---

    // What the CSW says: "passed 0", with what is left of the length.
    std::string Status() {
        const std::vector<std::string> statuses{"passed ", "failed ", "phase error "};
        const std::string csw = In(13).data;
        if (csw.size() != 13) return "no CSW";
        EXPECT_EQ(csw.substr(0, 8), "USBS" + kTag);
        return statuses.at(static_cast<unsigned char>(csw[12])) +
               std::to_string(le32toh(Parse<std::uint32_t>(csw.substr(8))));
    }
    // Runs a command to its end: "ok 512, passed 0", with what its data stage has moved, if it has
    // one; or "stall 512, ...".
    std::string Run(bool in, std::uint32_t length, const std::string& block) {
        EXPECT_EQ(Out(Cbw(in, length, block)).status, 0);
        if (length == 0) return Status();
        const Answer stage = in ? In(length) : Out(std::string(length, 'd'));
        const bool halted = Halted(in ? kInAddress : kOutAddress);
        EXPECT_EQ(stage.status, halted ? -EPIPE : 0);
        ClearHalts();
        data_ = stage.data;
        return (halted ? "stall " : "ok ") + std::to_string(stage.actual) + ", " + Status();
    }
    // What a command sends that is expected to send as much as this.
    std::string Fetch(std::uint32_t length, const std::string& block) {
        EXPECT_EQ(Run(kIn, length, block), "ok " + std::to_string(length) + ", passed 0");
        return data_;
    }
    // The key and code that REQUEST SENSE reports.
    std::pair<int, int> Sense() {
        const std::string sense = Fetch(18, FromHex("03 00 00 00 12 00"));
        return {sense.at(2), sense.at(12)};
    }

    const posix::UniqueFd file_{memfd_create("disk", MFD_CLOEXEC)};
    const std::string path_ = "/proc/self/fd/" + std::to_string(file_.Get());
    std::unique_ptr<UsbDisk> disk_;
    std::map<std::uint32_t, Answer> answers_;  // not taken yet
    std::uint32_t seqnum_ = 100;
    std::string data_;  // of the last control request or command
};

}  // namespace remote::test
