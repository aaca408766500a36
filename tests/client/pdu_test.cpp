// PDUs of a mapped device, between the fake kernel and the remote side.
#include "plugin/PluginTest.h"

namespace {

class PduTest : public PluginTest {
  protected:
    // The last ten words of a dumped header.
    const std::string zeroes =
        " 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 "
        "00000000";
};

// --- kernel to peer ---

TEST_F(PduTest, CutsTheKernelsBytesIntoPdus) {
    const auto kernel = Map(5);
    usbip_header not_iso = PduHeader(USBIP_CMD_SUBMIT, 7);
    not_iso.u.cmd_submit.number_of_packets = kUsbipNotIso;
    // One is longer than the buffer.
    const std::string pdus[] = {Unlink(1),
                                Bytes(not_iso),
                                SubmitIn(2, 512),
                                SubmitIn(6, 1 << 20),
                                SubmitOut(3, std::string(31, 'x'), 2),
                                SubmitOut(5, std::string(200'000, 'z')),
                                SubmitOut(4, std::string(1000, 'y'))};
    std::string all;
    for (const std::string& pdu : pdus)
        all += pdu;
    const std::jthread writer([&] {
        for (std::size_t at = 0; at < all.size(); at += 1000)
            kernel->Send(all.substr(at, 1000));
    });
    for (const std::string& pdu : pdus)
        ExpectForwarded(5, pdu);
    EXPECT_TRUE(Silent());
}

TEST_F(PduTest, RefusesWhatTheKernelWouldNeverSend) {
    usbip_header header = PduHeader(USBIP_CMD_SUBMIT, 1);
    header.u.cmd_submit.transfer_buffer_length = htobe32(0xFFFFFFF0);
    header.u.cmd_submit.number_of_packets = htobe32(0x10000000);
    const std::pair<std::string, LogLine> cases[] = {
        {UnlinkReply(0x0A0B), {1, "unkonw command 0x4 hdr 00000004 00000A0B" + zeroes}},
        {Bytes(header),
         {4, "PDU of 8589934624 bytes is too long, hdr 00000001 00000001" +
                 zeroes.substr(0, 4 * 9) + " FFFFFFF0 00000000 10000000" +
                 zeroes.substr(0, 3 * 9)}},
    };
    int ends = 0;
    for (const auto& [bytes, line] : cases) {
        const auto kernel = Map(5);
        kernel->Send(bytes);
        ExpectLog(line.level, "[CUsbipClientLinux] dev " + line.text);
        ExpectLog(4, "read dev fail", ++ends);
        EXPECT_TRUE(kernel->WaitForEnd()) << line;
        EXPECT_EQ(NextMessage(), UnmapMessage(5));
    }
}

TEST_F(PduTest, WarnsAboveManyUnansweredOutTransfers) {
    std::atomic<int> warned{0};
    host.runtime.on_log = [&] {
        if (host.runtime.Lines().back() != LogLine{4, "[CUsbipClientLinux] out seq list overflow"})
            return;
        usleep(20'000);  // in which the peer would get it
        EXPECT_EQ(host.stream->Written(), "") << "the command is recorded before it is sent";
        ++warned;
    };
    const auto kernel = Map(5);
    const auto command = [&](const std::string& pdu, int warnings) {
        kernel->Send(pdu);
        EXPECT_TRUE(Eventually([&] { return warned >= warnings; }));
        ExpectForwarded(5, pdu);
        EXPECT_EQ(warned, warnings);
    };
    const auto answer = [&](const std::string& pdu) {
        Reply(pdu);
        EXPECT_EQ(kernel->Receive(pdu.size()), pdu);
    };
    command(SubmitIn(2000, 1), 0);  // does not count
    for (std::uint32_t i = 0; i < 258; ++i)
        command(SubmitOut(i, "x"), i < 257 ? 0 : 1);
    answer(SubmitReply(257, 1));  // recorded all the same: 48 bytes, no data
    command(Unlink(1000, 256), 1);
    command(Unlink(1001, 255), 1);
    answer(UnlinkReply(1000, -104));
    command(SubmitOut(258, "x"), 1);  // an unlinked one is not waited for
    answer(UnlinkReply(1001));
    command(SubmitOut(259, "x"), 2);  // one that had won may still be answered
}

// --- peer to kernel ---

TEST_F(PduTest, PassesRepliesThatFitTheirCommand) {
    const auto kernel = Map(5), other = Map(1);
    const std::vector<IsoPacket> asked = {{0, 64, 0}, {64, 64, 0}};
    const std::vector<IsoPacket> packed = {{0, 64, 10}, {10, 64, 20}};
    for (const std::string& command :
         {SubmitOut(10, "data"), WithPackets(SubmitOut(11, std::string(128, 'x')), asked),
          WithPackets(SubmitIn(12, 128), asked), SubmitOut(13, "data"),
          SubmitIn(13, 1 << 20),  // the number comes again: what counts is the later one
          SubmitIn(15, 4)}) {
        kernel->Send(command);
        ExpectForwarded(5, command);
    }
    const std::string replies[] = {
        SubmitReply(10, 4),                        // answers OUT: no data
        WithPackets(SubmitReply(11, 30), packed),  // answers OUT, isochronous
        WithPackets(SubmitReply(12, 30, std::string(30, 'x')), packed) +
            SubmitReply(13, 1 << 20, std::string(1 << 20, 'y')) +
            UnlinkReply(14),         // in one message
        SubmitReply(10, 4, "data"),  // a second one is taken for an IN reply
    };
    std::string all, received;
    for (const std::string& reply : replies) {
        if (&reply == std::end(replies) - 1) {
            EXPECT_TRUE(Works(1, *other)) << "while there is no room for the large one";
            received = kernel->Receive(80'000);  // too little to wake who waits for room
        }
        Reply(reply);
        all += reply;
    }
    EXPECT_TRUE(received + kernel->Receive(all.size() - received.size()) == all);
    Reply(SubmitReply(11, 4));  // its command has been answered: data is missing now
    ExpectLog(4, "[CUsbipClientLinux] CheckNetRecv invalid");
}

TEST_F(PduTest, ALieEndsItsDeviceAlone) {
    const auto other = Map(1);
    const std::string packets = WithPackets(SubmitReply(7, 8, "12345678"), {{250, 8, 8}});
    const std::string lies[] = {SubmitReply(7, 257, std::string(257, 'x')),
                                UnlinkReply(1) + packets,
                                WithPackets(SubmitReply(7, 129, std::string(129, 'x')),
                                            {{0, 128, 129}}),  // more than was asked of a packet
                                WithPackets(SubmitReply(8, 0), {{0, 0, 0}}),  // not submitted yet
                                SubmitReply(8, 48, UnlinkReply(1))};
    for (const std::string& lie : lies) {
        host.runtime.Forget();
        const auto kernel = Map(5);
        const std::string command = WithPackets(SubmitIn(7, 256), {{0, 128, 0}, {128, 128, 0}});
        kernel->Send(command);
        ExpectForwarded(5, command);
        Reply(lie + UnlinkReply(2));
        ExpectLog(4, "[CUsbipClientLinux] CheckNetRecv invalid");
        EXPECT_EQ(kernel->Receive(1000), lie.ends_with(packets) ? UnlinkReply(1) : "")
            << "nothing of it is written, nor what comes after it";
        EXPECT_EQ(NextMessage(), UnmapMessage(5));
        EXPECT_EQ(host.runtime.Lines(4).size(), 1U);
        EXPECT_TRUE(Works(1, *other));
    }
}

TEST_F(PduTest, WhatTheKernelDoesNotTakeIsBounded) {
    const auto kernel = Map(5);
    const std::string pdu = SubmitReply(1, 40 << 20, std::string(40 << 20, 'x'));
    const LogLine line{
        4, "[CUsbipClientLinux] 5 more than 67108864 bytes wait for the kernel, device ends"};
    // One may be as large as it likes, and room counts by what it inflates to.
    Handle(ForwardMessage(5, pdu));
    Handle(ForwardMessage(5, UnlinkReply(1)));
    EXPECT_EQ(host.runtime.Count(line), 0);
    Handle(ForwardMessage(5, "not a stream", static_cast<std::uint32_t>(pdu.size())));
    EXPECT_EQ(host.runtime.Count(line), 1);
    EXPECT_EQ(NextMessage(), UnmapMessage(5));
    Handle(ForwardMessage(5, pdu));  // dropped
    EXPECT_EQ(host.runtime.Lines(4), std::vector{line});
}

// Behind a whole PDU what is none is left out, and the device goes on. A peer that sends nothing
// else is not listened to any more.
TEST_F(PduTest, WritesNothingThatIsNotAWholePdu) {
    const std::string invalid = "CheckNetRecv invalid", prefix = "[CUsbipClientLinux] ";
    const std::pair<std::string, LogLine> cases[] = {
        {"", {4, invalid + " packet"}},
        {UnlinkReply(1).substr(0, 47), {4, invalid + " packet"}},
        {Unlink(1), {1, "net unkonw command 0x2 hdr 00000002 00000001" + zeroes}},
        {SubmitReply(1, 64, std::string(52, 'x')), {4, invalid}},
        {SubmitReply(1, 0, "", 2).substr(0, 79), {4, invalid}},
    };
    std::uint32_t devid = 0;
    for (const auto& [reply, line] : cases) {
        host.runtime.Forget();
        const auto kernel = Map(++devid);
        Reply(UnlinkReply(1) + reply, devid);
        EXPECT_EQ(kernel->Receive(48), UnlinkReply(1));
        EXPECT_TRUE(Works(devid, *kernel)) << "and nothing was in between";
        EXPECT_EQ(host.runtime.Lines(4),
                  std::vector<LogLine>(reply.empty() ? 0 : 1, {4, prefix + invalid}));
        host.runtime.Forget();
        Reply(reply, devid);
        ExpectLog(line.level, prefix + line.text);
        ExpectLog(1, prefix + std::to_string(devid) + " write thread prepare quit");
        kernel->Send(Unlink(77));
        ExpectForwarded(devid, Unlink(77));
        EXPECT_EQ(host.runtime.Count({1, prefix + "work loop exit"}), 0);
        host.Receive(UnmapMessage(devid));
        EXPECT_EQ(NextMessage(), UnmapMessage(devid));
    }
}

}  // namespace
