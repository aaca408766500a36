// What passes between the host's commands and a USB/IP server's byte stream: replies of every
// length, lies, and unlinks in every order; and the server protocol's replies.
#include <cerrno>

#include "Pdus.h"
#include "remote/bridge/DeviceTable.h"
#include "remote/bridge/UsbipHandshake.h"
#include "remote/bridge/UsbipTraffic.h"

namespace remote::test {

// Commands and sequence numbers are below 256 here: the last bytes of their fields tell them.
constexpr std::size_t kCommandByte = 3;
constexpr std::size_t kSeqnumByte = 7;

class UsbipTrafficTest : public testing::Test, public ReplySink {
  protected:
    void Reply(Bytes pdu) override {
        const auto status = static_cast<int>(LoadBe32(&pdu[offsetof(usbip_header, u)]));
        log_ += " <" + std::to_string(pdu[kSeqnumByte]);
        log_ += pdu[kCommandByte] == USBIP_RET_UNLINK
                    ? "=" + std::to_string(status)
                    : "+" + std::to_string(pdu.size() - sizeof(usbip_header));
    }

    // What comes of commands of the host and replies of the server (these in pieces), in order:
    // " >N" command N goes to the server, " <N+B" URB N is answered with B bytes behind the header,
    // " <N=S" unlink N is answered with status S, " END" the device has to go, and with it the
    // rest, " waits" there is a deadline at the end.
    std::string Play(const std::vector<std::string>& pdus, std::size_t piece) {
        traffic_ = {};
        input_ = {};
        log_.clear();
        for (const std::string& pdu : pdus) {
            const std::size_t queued = traffic_.Output().Pending();
            const bool host = View(pdu)[kCommandByte] <= USBIP_CMD_UNLINK;
            std::string error = host ? traffic_.TakeCommand(Decoded(pdu), *this) : "";
            for (std::size_t at = 0; !host && at < pdu.size() && error.empty(); at += piece) {
                const std::string bytes = pdu.substr(at, piece);
                std::copy(bytes.begin(), bytes.end(), input_.Space().begin());
                input_.Advance(bytes.size());
                error = traffic_.TakeReplies(input_, *this);
            }
            if (traffic_.Output().Pending() > queued)
                log_ += " >" + std::to_string(pdu[kSeqnumByte]);
            if (!error.empty()) return log_ + " END";
        }
        return log_ + (traffic_.Deadline() ? " waits" : "");
    }

    UsbipTraffic traffic_;
    InputBuffer input_;
    std::string log_;
};

TEST_F(UsbipTrafficTest, UnlinksAreAnsweredOnceAndLiesEndTheDevice) {
    const std::string urb = SubmitIn(5, 64), unlink = With(kTarget, 5, Unlink(6));
    const std::string reply = SubmitReply(5, 9, "ninebytes"), late = UnlinkReply(6);
    const std::string gone = With(kStatus, -ECONNRESET, UnlinkReply(6));
    const std::tuple<const char*, std::vector<std::string>, const char*> cases[] = {
        {"replies of every length",
         {SubmitIn(1, 512), SubmitIn(2, 512), SubmitIn(3, 512), SubmitOut(4, "data"),
          With(kPackets, 3, SubmitIn(5, 576) + std::string(48, 'i')),
          SubmitOut(6, std::string(1152, 'x'), 6), SubmitIn(7, 8), SubmitIn(8, 1 << 20),
          SubmitReply(1, 512, std::string(512, 'x')) + SubmitReply(2, 5, "short") +
              With(kStatus, -EPIPE, SubmitReply(3, 0)) + SubmitReply(4, 4) +
              SubmitReply(5, 0, {}, 3) + SubmitReply(6, 1152, {}, 6) +
              With(kPackets, kUsbipNotIso, SubmitReply(7, 0)) +
              SubmitReply(8, 600'000, std::string(600'000, 'x'))},
         " >1 >2 >3 >4 >5 >6 >7 >8 <1+512 <2+5 <3+0 <4+0 <5+48 <6+96 <7+0 <8+600000"},
        {"unlink succeeds", {urb, unlink, gone}, " >5 >6 <6=-104"},
        {"and nothing may follow", {urb, unlink, gone, reply}, " >5 >6 <6=-104 END"},
        {"the URB wins", {urb, unlink, reply, late}, " >5 >6 <5+9 <6=0"},
        {"reply behind RET_UNLINK", {urb, unlink, late + reply}, " >5 >6 <6=0"},
        {"a second unlink", {urb, unlink, late, With(kTarget, 5, Unlink(7))}, " >5 >6 <6=0 <7=0"},
        {"before any URB", {unlink}, " <6=-104"},
        {"of the device before", {urb, With(kTarget, 4, Unlink(6))}, " >5 <6=-104"},
        {"of an answered URB", {urb, reply, unlink}, " >5 <5+9 <6=0"},
        {"silent server", {urb, unlink}, " >5 >6 waits"},
        {"repeated unlink", {urb, unlink, With(kTarget, 5, Unlink(7))}, " >5 >6 END"},
        {"repeated URB", {urb, urb}, " >5 END"},
        {"too long, IN", {urb, SubmitReply(5, 65)}, " >5 END"},
        {"too long, OUT", {SubmitOut(5, "data"), SubmitReply(5, 65)}, " >5 END"},
        {"packets nobody asked for", {urb, SubmitReply(5, 0, {}, 1)}, " >5 END"},
        {"packets of another sum",
         {With(kPackets, 1, SubmitIn(5, 9) + std::string(16, 'i')), SubmitReply(5, 3, "iso", 1)},
         " >5 END"},
        {"a million packets", {urb, With(kPackets, 1 << 20, reply)}, " >5 END"},
        {"4 GiB", {SubmitIn(5, 0xFFFFFFFF), SubmitReply(5, 0xFFFFFFFF)}, " >5 END"},
        {"unknown URB", {urb, SubmitReply(7, 0)}, " >5 END"},
        {"second reply", {urb, reply + reply}, " >5 <5+9 END"},
        {"no reply at all", {urb, With(0, 9, reply)}, " >5 END"},
    };
    for (const auto& [what, exchange, outcome] : cases)
        for (const std::size_t piece : {1UL, 7UL, 48UL, 250'000UL})
            EXPECT_EQ(Play(exchange, piece), outcome) << what << " by " << piece;
}

TEST_F(UsbipTrafficTest, WhatWaitsForTheServerIsBounded) {
    for (const auto& [pdu, most] : {std::pair{SubmitIn(0, 1), UsbipTraffic::kMaxUrbs},
                                    {SubmitOut(0, std::string(3 << 20, 'x')), 10UL}}) {
        std::uint32_t taken = 0;
        while (traffic_.TakeCommand(Decoded(With(4, taken, pdu)), *this).empty())
            ASSERT_LE(++taken, most);
        EXPECT_EQ(taken, most);
        traffic_ = {};
    }
}

// What is wrong with the reply to an import of 1-2.3, or how many bytes were taken; 0: more needed.
std::string Import(ByteView reply) {
    ServedDevice device;
    std::string error;
    const std::size_t size = ReadImportReply(reply, "1-2.3", device, error);
    return error.empty() ? std::to_string(size) : error;
}

TEST(UsbipHandshake, ImportIsReadWhenItIsWholeAndRefusedWhenItLies) {
    using Reply = usbip_op_import_reply;
    const std::string whole = ::Bytes(ImportReply("1-2.3"));
    for (std::size_t size = 0; size <= whole.size() + 1; ++size)
        ASSERT_EQ(Import(View(whole + "more").first(size)), size < sizeof(Reply) ? "0" : "320");
    const auto busid = [&whole](std::string text) {
        text.resize(32);
        return std::string(whole).replace(offsetof(Reply, device.busid), 32, text);
    };
    const std::pair<std::string, const char*> cases[] = {
        {With(0, 0x01060003, whole), "version 0106, not 0111"},
        {With(0, 0x01110005, whole), "code 0005, not 0003"},
        {With(4, 77, whole), "refuses (status 77)"},
        {With(4, 4, whole).substr(0, 8), "there is no such device (status 4)"},  // no more comes
        {busid("1-2.4"), "hands out 1-2.4"},
        {busid(""), "without a readable bus id"},
        {busid(std::string(32, '\x1B')), "without a readable bus id"},
        {busid(std::string(32, '1')), "hands out 1111"},
        {With(offsetof(Reply, device.busnum), 65536, whole), "bus 65536"},
        {With(offsetof(Reply, device.devnum), -1, whole), "device 4294967295"},
        {With(offsetof(Reply, device.speed), 0, whole), "speed 0"},
        {With(offsetof(Reply, device.speed), 7, whole), "speed 7"},
    };
    for (const auto& [reply, error] : cases)
        ExpectIn(Import(View(reply)), error);
}

TEST(UsbipHandshake, ListIsReadPieceByPieceAndShownAsATable) {
    usbip_op_device stick = ImportReply("1-1").device;
    stick.speed = htobe32(6);  // super plus
    stick.interfaces = 1;
    usbip_op_device headset = ImportReply("2-1.4").device;
    headset.interfaces = 3;
    const std::string unknown = ::Bytes(ImportReply("3-1").device);
    const auto list = [](const std::string& count) {
        return FromHex("01 11 00 05 00 00 00 00 00 00 " + count);
    };
    const std::pair<std::string, const char*> cases[] = {
        {list("00 03") + ::Bytes(stick) + FromHex("08 06 50 00") + ::Bytes(headset) +
             FromHex("01 01 00 00 01 02 00 00 03 00 00 00") + unknown,
         "BUS ID        VID:PID    SPEED     CLASS\n"
         "1-1           046d:c31c  super     mass storage\n"
         "2-1.4         046d:c31c  full      audio, HID\n"
         "3-1           046d:c31c  full      -\n"},
        {list("00 00"), "no devices\n"},
        {list("10 01"), "the server announces 4097 devices"},
        {list("00 01") + ::Bytes(usbip_op_device{}),
         "the server sends a device without a readable bus id"},
    };
    for (const auto& [reply, outcome] : cases) {
        ListReader reader;
        std::size_t taken = 0;
        for (std::size_t size = 1; size <= reply.size() && reader.Error().empty(); ++size) {
            EXPECT_FALSE(reader.Done());
            taken += reader.Read(View(reply).subspan(taken, size - taken));
        }
        EXPECT_EQ(reader.Error().empty() ? DeviceTable(reader.Devices()) : reader.Error(), outcome);
    }
}

}  // namespace remote::test
