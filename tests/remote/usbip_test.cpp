// What passes between the host's commands and a USB/IP server's byte stream: replies of every
// length, lies, and unlinks in every order; and the server protocol's requests and replies.
#include <cerrno>
#include <functional>
#include <vector>

#include "Pdus.h"
#include "UsbipReplies.h"
#include "remote/UsbipHandshake.h"
#include "remote/UsbipTraffic.h"

namespace remote::test {
namespace {

// A command for `packets` isochronous packets; OUT data and descriptors are zeros.
Bytes Command(std::uint32_t seqnum, std::uint32_t direction, std::uint32_t length,
              std::uint32_t packets = 0) {
    Submit urb{.seqnum = seqnum, .endpoint = 1, .direction = direction, .length = length};
    if (direction == kOut) urb.data.resize(length);
    Bytes pdu = urb.Pdu();
    StoreBe32(&pdu[offsetof(usbip_header, u.cmd_submit.number_of_packets)], packets);
    pdu.resize(pdu.size() + packets * sizeof(usbip_iso_packet_descriptor));
    return pdu;
}

class UsbipTrafficTest : public testing::Test, public ReplySink {
  protected:
    using Replies = std::vector<std::string>;

    // As "submit SEQNUM +BYTES" (behind the header) or "unlink SEQNUM STATUS".
    void Reply(Bytes pdu) override {
        const auto header = LoadRaw<usbip_header>(pdu.data());
        const std::string seqnum = std::to_string(be32toh(header.seqnum));
        if (be32toh(header.command) == USBIP_RET_UNLINK) {
            const auto status = static_cast<std::int32_t>(be32toh(header.u.ret_unlink.status));
            replies_.push_back("unlink " + seqnum + " " + std::to_string(status));
        } else {
            replies_.push_back("submit " + seqnum + " +" +
                               std::to_string(pdu.size() - sizeof header));
        }
    }

    // Each returns the error that ends the device, or nothing.
    std::string Host(const Bytes& pdu) { return traffic_.Command(pdu, *this); }
    std::string Server(const Bytes& bytes, std::size_t piece = SIZE_MAX) {
        std::string error;
        for (std::size_t at = 0; at < bytes.size() && error.empty();) {
            const ByteSpan space = input_.Space();
            const std::size_t size = std::min({piece, bytes.size() - at, space.size()});
            std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), size, space.begin());
            input_.Advance(size);
            at += size;
            error = traffic_.TakeReplies(input_, *this);
        }
        return error;
    }
    Replies Take() { return std::exchange(replies_, {}); }

    // What is on its way to the server.
    Bytes Sent() {
        Bytes sent;
        std::array<iovec, 8> pieces{};
        while (const std::size_t count = traffic_.Output().Gather(pieces)) {
            std::size_t size = 0;
            for (const iovec& piece : std::span(pieces).first(count)) {
                const auto* bytes = static_cast<const std::uint8_t*>(piece.iov_base);
                sent.insert(sent.end(), bytes, bytes + piece.iov_len);
                size += piece.iov_len;
            }
            traffic_.Output().Consume(size);
        }
        return sent;
    }
    void Restart() {
        traffic_ = {};
        input_ = {};
        replies_.clear();
    }

    UsbipTraffic traffic_;
    InputBuffer input_;
    Replies replies_;
};

TEST_F(UsbipTrafficTest, RepliesOfEveryShapePassWholeInPiecesOfAnySize) {
    const std::initializer_list<Bytes> commands{Command(1, kIn, 512),    Command(2, kIn, 512),
                                                Command(3, kIn, 512),    Command(4, kOut, 31),
                                                Command(5, kIn, 576, 3), Command(6, kOut, 1152, 6),
                                                Command(7, kIn, 8),      Command(8, kIn, 1 << 20)};
    const Bytes stream =
        Joined({RetSubmit{.seqnum = 1, .actual = 512, .data = 512},
                RetSubmit{.seqnum = 2, .actual = 100, .data = 100},
                RetSubmit{.seqnum = 3, .status = -EPIPE}, RetSubmit{.seqnum = 4, .actual = 31},
                RetSubmit{.seqnum = 5, .actual = 300, .packets = 3, .data = 348},
                RetSubmit{.seqnum = 6, .actual = 1152, .packets = 6, .data = 96},
                RetSubmit{.seqnum = 7, .packets = kUsbipNotIso},
                RetSubmit{.seqnum = 8, .actual = 600'000, .data = 600'000}});
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{48}, SIZE_MAX}) {
        Restart();
        for (const Bytes& command : commands)
            ASSERT_EQ(Host(command), "");
        EXPECT_EQ(Sent(), Joined(commands)) << "commands reach the server untouched";
        ASSERT_EQ(Server(stream, piece), "") << "in pieces of " << piece;
        EXPECT_EQ(Take(),
                  (Replies{"submit 1 +512", "submit 2 +100", "submit 3 +0", "submit 4 +0",
                           "submit 5 +348", "submit 6 +96", "submit 7 +0", "submit 8 +600000"}));
    }
}

TEST_F(UsbipTrafficTest, LiesEndTheDevice) {
    const struct {
        Bytes command;
        Bytes reply;
        const char* error;
    } cases[] = {
        {Command(1, kIn, 64), RetSubmit{.seqnum = 1, .actual = 65}, "more than was asked"},
        {Command(1, kOut, 64), RetSubmit{.seqnum = 1, .actual = 65}, "more than was asked"},
        {Command(1, kIn, 64), RetSubmit{.seqnum = 1, .packets = 1}, "more than was asked"},
        {Command(1, kIn, 64, 2), RetSubmit{.seqnum = 1, .packets = 0xFFFFFFFE}, "more than was"},
        {Command(1, kIn, 0xFFFFFFFF), RetSubmit{.seqnum = 1, .actual = 0xFFFFFFFF}, "more than"},
        {Command(1, kIn, 64), RetSubmit{.seqnum = 2}, "unknown URB 2"},
        {Command(1, kIn, 64), Joined({RetSubmit{.seqnum = 1}, RetSubmit{.seqnum = 1}}),
         "unknown URB 1"},
        {Command(1, kIn, 64), Command(1, kIn, 64), "sends command 1"},
    };
    for (const auto& one : cases) {
        Restart();
        ASSERT_EQ(Host(one.command), "");
        EXPECT_NE(Server(one.reply).find(one.error), std::string::npos) << one.error;
    }
}

TEST_F(UsbipTrafficTest, UnlinkThatSucceedsSettlesTheUrb) {
    Host(Command(5, kIn, 64));
    Sent();
    ASSERT_EQ(Host(UnlinkPdu(6, 5)), "");
    EXPECT_EQ(Sent(), UnlinkPdu(6, 5));
    EXPECT_TRUE(traffic_.Deadline());
    EXPECT_EQ(Server(RetUnlinkPdu(6, -ECONNRESET)), "");
    EXPECT_EQ(Take(), Replies{"unlink 6 -104"});
    EXPECT_FALSE(traffic_.Deadline());
    EXPECT_NE(Server(RetSubmit{.seqnum = 5}), "") << "nothing may follow";
}

// The bridge answers the unlink itself, and the server's answer, if there is one, leads nowhere.
TEST_F(UsbipTrafficTest, UrbThatWinsAgainstItsUnlinkComesFirst) {
    Host(Command(5, kIn, 64));
    Host(UnlinkPdu(6, 5));
    EXPECT_EQ(Server(RetSubmit{.seqnum = 5, .actual = 64, .data = 64}), "");
    EXPECT_EQ(Take(), (Replies{"submit 5 +64", "unlink 6 0"}));
    EXPECT_FALSE(traffic_.Deadline());
    EXPECT_EQ(Server(RetUnlinkPdu(6, 0)), "");
    EXPECT_EQ(Take(), Replies{});
}

// The kernel has given the URB back when RET_UNLINK has come, and would not survive its reply.
TEST_F(UsbipTrafficTest, ReplyBehindItsRetUnlinkIsDropped) {
    Host(Command(5, kIn, 64));
    Host(UnlinkPdu(6, 5));
    Host(Command(7, kIn, 64));
    EXPECT_EQ(Server(Joined({RetUnlinkPdu(6, 0), RetSubmit{.seqnum = 5, .actual = 9, .data = 9},
                             RetSubmit{.seqnum = 7, .actual = 3, .data = 3}})),
              "");
    EXPECT_EQ(Take(), (Replies{"unlink 6 0", "submit 7 +3"}));
}

TEST_F(UsbipTrafficTest, UnlinksThatTheServerWouldNotAnswerAreAnsweredHere) {
    ASSERT_EQ(Host(UnlinkPdu(9, 3)), "") << "before any URB";
    Host(Command(10, kOut, 8));
    Server(RetSubmit{.seqnum = 10, .actual = 8});
    Sent();
    ASSERT_EQ(Host(UnlinkPdu(11, 10)), "") << "answered";
    ASSERT_EQ(Host(UnlinkPdu(12, 4)), "") << "of the device before";
    EXPECT_EQ(Take(), (Replies{"unlink 9 -104", "submit 10 +0", "unlink 11 0", "unlink 12 -104"}));
    EXPECT_EQ(Sent(), Bytes{}) << "nothing for the server";
}

TEST_F(UsbipTrafficTest, RepeatedNumbersEndTheDevice) {
    Host(Command(5, kIn, 64));
    EXPECT_NE(Host(Command(5, kIn, 64)), "");
    Restart();
    Host(Command(5, kIn, 64));
    Host(UnlinkPdu(6, 5));
    EXPECT_NE(Host(UnlinkPdu(7, 5)), "");
}

TEST_F(UsbipTrafficTest, WhatWaitsForTheServerIsBounded) {
    const std::uint32_t size = 1 << 20;
    std::uint32_t seqnum = 0;
    while (Host(Command(++seqnum, kOut, size)).empty())
        ASSERT_LE(traffic_.Output().Pending(), UsbipTraffic::kMaxQueued);
    EXPECT_EQ(seqnum, UsbipTraffic::kMaxQueued / size)
        << "all that fit with their headers, and one";
    Restart();
    for (seqnum = 1; seqnum <= UsbipTraffic::kMaxUrbs; ++seqnum)
        ASSERT_EQ(Host(Command(seqnum, kIn, 1)), "");
    EXPECT_NE(Host(Command(seqnum, kIn, 1)), "");
}

class UsbipHandshakeTest : public testing::Test {
  protected:
    // The error of a reply, or "more" when it is incomplete.
    static std::string Import(const Bytes& reply) {
        ServedDevice device;
        std::string error;
        const std::size_t size = ReadImportReply(reply, "1-2.3", device, error);
        return size == 0 && error.empty() ? "more" : error;
    }
};

TEST_F(UsbipHandshakeTest, ImportIsReadWhenItIsWhole) {
    const usbip_op_import_reply reply = ImportReply("1-2.3");
    const Bytes whole = Raw(reply);
    for (std::size_t size = 0; size < whole.size(); ++size)
        ASSERT_EQ(Import({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}),
                  "more");
    ServedDevice device;
    std::string error;
    EXPECT_EQ(ReadImportReply(Joined({whole, {1, 2, 3}}), "1-2.3", device, error), 320U);
    EXPECT_EQ(error, "");
    EXPECT_EQ(device.bus, 3);
    EXPECT_EQ(device.number, 9);
    EXPECT_EQ(device.speed, UsbSpeed::kFull);
    EXPECT_EQ(UsbIdText(device.vendor, device.product), "046d:c31c");
}

TEST_F(UsbipHandshakeTest, HostileImportRepliesAreRefused) {
    using Reply = usbip_op_import_reply;
    const struct {
        std::function<void(Reply&)> change;
        const char* error;
    } cases[] = {
        {[](Reply& reply) { reply.head.version = htobe16(0x0106); }, "version 0106, not 0111"},
        {[](Reply& reply) { reply.head.code = htobe16(OP_REP_DEVLIST); }, "code 0005, not 0003"},
        {[](Reply& reply) { reply.head.status = htobe32(USBIP_ST_DEV_BUSY); }, "in use (status 2)"},
        {[](Reply& reply) { reply.head.status = htobe32(77); }, "refuses (status 77)"},
        {[](Reply& reply) { reply.device.busid[4] = '4'; }, "hands out 1-2.4"},
        {[](Reply& reply) { reply.device.busid[0] = '\0'; }, "without a readable bus id"},
        {[](Reply& reply) { std::fill_n(reply.device.busid, 32, '\x1B'); }, "without a readable"},
        {[](Reply& reply) { std::fill_n(reply.device.busid, 32, '1'); }, "hands out 1111"},
        {[](Reply& reply) { reply.device.busnum = htobe32(65536); }, "bus 65536"},
        {[](Reply& reply) { reply.device.devnum = 0xFFFFFFFF; }, "device 4294967295"},
        {[](Reply& reply) { reply.device.speed = 0; }, "speed 0"},
        {[](Reply& reply) { reply.device.speed = htobe32(7); }, "speed 7"},
    };
    for (const auto& one : cases) {
        Reply reply = ImportReply("1-2.3");
        one.change(reply);
        EXPECT_NE(Import(Raw(reply)).find(one.error), std::string::npos)
            << "expected: " << one.error << ", is: " << Import(Raw(reply));
    }
    usbip_op_header refusal{htobe16(kUsbipServerVersion), htobe16(OP_REP_IMPORT), htobe32(4)};
    EXPECT_NE(Import(Raw(refusal)).find("no such device"), std::string::npos)
        << "a refusal ends with its head";
}

TEST_F(UsbipHandshakeTest, ListIsReadPieceByPieceAndShownAsATable) {
    usbip_op_device stick = ImportReply("1-1").device;
    stick.speed = htobe32(6);  // super plus
    stick.interfaces = 1;
    usbip_op_device headset = ImportReply("2-1.4").device;
    headset.interfaces = 3;
    const Bytes reply =
        Joined({Raw(ListReply(2)), Raw(stick), Raw(usbip_op_interface{0x08, 6, 0x50, 0}),
                Raw(headset), Raw(usbip_op_interface{0x01, 1, 0, 0}),
                Raw(usbip_op_interface{0x01, 2, 0, 0}), Raw(usbip_op_interface{0x03, 0, 0, 0})});
    ListReader reader;
    Bytes received;
    for (const std::uint8_t byte : reply) {
        ASSERT_FALSE(reader.Done());
        received.push_back(byte);
        const std::size_t taken = reader.Read(received);
        received.erase(received.begin(), received.begin() + static_cast<std::ptrdiff_t>(taken));
    }
    ASSERT_TRUE(reader.Done());
    EXPECT_EQ(DeviceTable(reader.Devices()),
              "BUS ID        VID:PID    SPEED     CLASS\n"
              "1-1           046d:c31c  super     mass storage\n"
              "2-1.4         046d:c31c  full      audio, HID\n");
}

TEST_F(UsbipHandshakeTest, HostileListsAreRefused) {
    const auto error = [](const Bytes& reply) {
        ListReader reader;
        reader.Read(reply);
        return reader.Error();
    };
    EXPECT_NE(error(Raw(ListReply(0xFFFFFFFF))).find("4294967295 devices"), std::string::npos);
    EXPECT_NE(error(Raw(ImportReply("1-1"))).find("code 0003"), std::string::npos);
    usbip_op_device device = ImportReply("1-1").device;
    device.speed = 0;
    EXPECT_NE(error(Joined({Raw(ListReply(1)), Raw(device), {0, 0, 0, 0}})), "");
}

}  // namespace
}  // namespace remote::test
