// A virtual disk and its host: URBs and unlinks, the bulk-only transport as the kernel's storage
// driver speaks it, and what SCSI commands come to.
#pragma once

#include <sys/mman.h>

#include <cerrno>

#include "Pdus.h"
#include "remote/disk/UsbDisk.h"

namespace remote::test {

inline constexpr bool kIn = true;
inline constexpr bool kOut = false;

// For a command block in hexadecimal, which expects `length` bytes in this direction.
inline std::string Cbw(bool in, std::uint32_t length, const std::string& command) {
    std::string block = FromHex(command);
    const char fields[] = {static_cast<char>(in ? 0x80 : 0), 0, static_cast<char>(block.size())};
    block.resize(16);
    return "USBCtag." + ::Bytes(htole32(length)) + std::string(fields, 3) + block;
}

class DiskTest : public testing::Test, public ReplySink {
  protected:
    static constexpr int kNone = 1;  // no status is positive
    struct Answer {                  // to a URB or an unlink
        int status = kNone;
        std::uint32_t actual = 0;
        std::string data = {};
    };

    DiskTest() {
        for (int block = 0; block < 200; ++block)
            EXPECT_EQ(write(file_.Get(), Content(block).data(), 512), 512);
        Plug();
    }
    void Plug(UsbSpeed speed = UsbSpeed::kHigh, bool read_only = false) {
        std::string error;
        disk_.reset();  // its lock, too
        auto image = DiskImage::Open(path_, read_only, error);
        EXPECT_TRUE(image) << error;
        disk_ = std::make_unique<UsbDisk>(std::move(image).value(), speed, "disk", "0123456789AB");
        Attach();
    }
    void Attach() {
        disk_->Attach(*this);
        EXPECT_EQ(In(13).status, -EPIPE) << "not configured yet";
        EXPECT_EQ(Control("00 09 01 00 00 00 00 00"), "") << "SET_CONFIGURATION";
    }
    // Of a block that has not been written.
    static std::string Content(int block) { return std::string(512, static_cast<char>(block)); }

    // --- URBs: these return their sequence number, or else their answer ---

    std::uint32_t Start(Command command) {
        command.seqnum = ++seqnum_;
        disk_->TakeCommand(command);
        return seqnum_;
    }
    std::uint32_t StartIn(std::uint32_t length, std::uint32_t flags = 0) {
        return Start({.in = true, .endpoint = 1, .transfer_flags = flags, .length = length});
    }
    Answer In(std::uint32_t length) { return Take(StartIn(length)); }
    Answer Out(std::string_view data, std::string_view packets = {}) {
        const auto length = static_cast<std::uint32_t>(data.size());
        return Take(
            Start({.endpoint = 2, .length = length, .data = View(data), .packets = View(packets)}));
    }
    int Unlink(std::uint32_t target) { return Take(Start({.unlinks = target})).status; }

    void Reply(remote::Bytes pdu) override {
        const auto header = LoadRaw<usbip_header>(pdu.data());
        Answer& answer = answers_[be32toh(header.seqnum)];
        EXPECT_EQ(answer.status, kNone) << "two answers";
        answer = {static_cast<int>(be32toh(header.u.ret_submit.status)),
                  be32toh(header.u.ret_submit.actual_length),
                  {pdu.begin() + sizeof header, pdu.end()}};
    }
    Answer Take(std::uint32_t seqnum) { return std::exchange(answers_[seqnum], Answer{}); }

    // --- requests on endpoint 0 ---

    // The data of the answer, or "stall".
    std::string Control(const std::string& setup, bool in, std::uint32_t length) {
        const auto bytes = Parse<std::array<std::uint8_t, 8>>(FromHex(setup));
        const Answer answer = Take(Start({.in = in, .length = length, .setup = bytes}));
        if (answer.status == -EPIPE) return "stall";
        EXPECT_EQ(answer.status, 0);
        EXPECT_EQ(answer.actual, in ? answer.data.size() : length);
        return answer.data;
    }
    std::string Control(const std::string& setup) {
        return Control(setup, setup[0] >= '8', Parse<std::uint16_t>(FromHex(setup).substr(6)));
    }
    bool Halted(bool in) {
        return Control(in ? "82 00 00 00 81 00 02 00" : "82 00 00 00 02 00 02 00")[0] == 1;
    }
    void ClearHalts() {
        for (const char* setup : {"02 01 00 00 81 00 00 00", "02 01 00 00 02 00 00 00"})
            EXPECT_EQ(Control(setup), "");
    }

    // --- commands, as blocks in hexadecimal ---

    // What the CSW says: "passed 0", with what is left of the length.
    std::string Status() {
        const std::vector<std::string> statuses{"passed ", "failed ", "phase error "};
        const std::string csw = In(13).data;
        if (csw.size() != 13) return "no CSW";
        EXPECT_EQ(csw.substr(0, 8), "USBStag.");
        return statuses.at(static_cast<unsigned char>(csw[12])) +
               std::to_string(Parse<std::uint32_t>(csw.substr(8)));
    }
    // Runs a command to its end: "ok 512, passed 0", with what its data stage has moved, if it has
    // one; or "stall 512, ...".
    std::string Run(bool in, std::uint32_t length, const std::string& command) {
        EXPECT_EQ(Out(Cbw(in, length, command)).status, 0);
        if (length == 0) return Status();
        const Answer stage = in ? In(length) : Out(std::string(length, 'd'));
        EXPECT_EQ(stage.status, Halted(in) ? -EPIPE : 0);
        ClearHalts();
        data_ = stage.data;
        return (stage.status != 0 ? "stall " : "ok ") + std::to_string(stage.actual) + ", " +
               Status();
    }
    // What a command sends to a host that has room for `length` bytes.
    std::string Fetch(const std::string& command, std::uint32_t length = 255) {
        const std::string outcome = Run(kIn, length, command);
        EXPECT_EQ(outcome, "ok " + std::to_string(data_.size()) + ", passed " +
                               std::to_string(length - data_.size()));
        return data_;
    }
    // The key and code that REQUEST SENSE reports.
    std::string Sense() {
        const std::string sense = Fetch("03 00 00 00 FF 00");
        return {sense.at(2), sense.at(12)};
    }

    const posix::UniqueFd file_{memfd_create("disk", MFD_CLOEXEC)};
    const std::string path_ = "/proc/self/fd/" + std::to_string(file_.Get());
    std::unique_ptr<UsbDisk> disk_;
    std::map<std::uint32_t, Answer> answers_;  // by sequence number; not taken yet
    std::uint32_t seqnum_ = 100;
    std::string data_;  // of the last command
};

}  // namespace remote::test
