// Forwarding PDUs between the kernel and the remote side, plain and compressed.
#include <gtest/gtest.h>
#include <zlib.h>

#include "client/IClientUsbipListenter.h"
#include "support/FakeController.h"
#include "support/FakeHost.h"
#include "support/Messages.h"

namespace {

std::string Deflate(const std::string& data) {
    uLongf length = compressBound(data.size());
    std::string deflated(length, '\0');
    compress(reinterpret_cast<Bytef*>(deflated.data()), &length,
             reinterpret_cast<const Bytef*>(data.data()), data.size());
    return deflated.substr(0, length);
}

std::string Inflate(std::string_view data, std::size_t rawsize) {
    std::string inflated(rawsize, '\0');
    uLongf length = rawsize;
    const int status = uncompress(reinterpret_cast<Bytef*>(inflated.data()), &length,
                                  reinterpret_cast<const Bytef*>(data.data()), data.size());
    EXPECT_EQ(status, Z_OK);
    return inflated.substr(0, length);
}

// Text whose neighbours differ: it compresses, and a shifted copy is noticed.
std::string Payload(std::size_t size) {
    std::string data(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        data[i] = static_cast<char>('a' + i / 7 % 26);
    return data;
}

// Device 7, mapped and attached.
class ForwardTest : public ::testing::Test {
  protected:
    ForwardTest() {
        host.Start();
        host.Receive(MapMessage(7));
        kernel = controller.WaitForAttach();
    }
    void SetUp() override { ASSERT_TRUE(kernel) << "the device was not attached"; }

    void AllowCompression(bool allow) { RequestVersion(allow ? 1 : 0); }
    void RequestVersion(std::uint8_t flags) {
        host.Receive(VersionRequest(flags));
        host.stream->WaitForMessage();
    }
    // A whole PDU of the given size from the kernel, and the message it became.
    std::string Sent(std::size_t pdu_size) {
        pdu = SubmitOut(++seqnum, Payload(pdu_size - sizeof(usbip_header)));
        EXPECT_TRUE(kernel->Send(pdu));
        return host.stream->WaitForMessage();
    }
    // A device with nothing pending answers this; what was sent before it has been handled then.
    void ExpectAlive() {
        host.Receive(ForwardMessage(7, UnlinkReply(99)));
        EXPECT_EQ(kernel->Receive(48), UnlinkReply(99));
    }

    FakeController controller;
    FakeHost host;
    std::unique_ptr<KernelEnd> kernel;
    std::string pdu;
    std::uint32_t seqnum = 0;
};

TEST_F(ForwardTest, AnUnlinkBecomesThese80Bytes) {
    kernel->Send(Unlink(3));
    EXPECT_EQ(host.stream->WaitForMessage(),
              FromHex("48 00 00 00 0B 00 00 00 40 00 00 00 05 00 00 00 "
                      "07 00 00 00 30 00 00 00 00 00 00 00") +
                  Unlink(3) + std::string(4, '\0'));
}

TEST_F(ForwardTest, CompressesAboveTheThresholdWhenAllowed) {
    for (const std::size_t size : {49UL, 4096UL, 4097UL, 200'000UL}) {
        AllowCompression(false);
        std::string message = Sent(size);
        EXPECT_TRUE(message == ForwardMessage(7, pdu)) << size << " bytes, not allowed";
        AllowCompression(true);
        message = Sent(size);
        if (size <= 4096) {
            EXPECT_TRUE(message == ForwardMessage(7, pdu)) << size << " bytes, too short";
            continue;
        }
        const auto forward = Parse<usbip_forward>(message);
        EXPECT_EQ(forward.rawsize, size);
        ASSERT_EQ(message.size(), forward.datasize + 32U);
        const std::string data = message.substr(28, forward.datasize);
        EXPECT_TRUE(Inflate(data, size) == pdu) << size;
        EXPECT_TRUE(message == ForwardMessage(7, data, forward.rawsize)) << "headers and filler";
    }
}

TEST_F(ForwardTest, OnlyTheLowestFlagAllowsCompression) {
    const struct {
        std::uint8_t flags;
        bool compressed;
    } cases[] = {{0xFE, false}, {0xFF, true}, {0x02, false}, {0x01, true}, {0x00, false}};
    for (const auto& test : cases) {
        RequestVersion(test.flags);
        EXPECT_EQ(Parse<usbip_forward>(Sent(5000)).rawsize, test.compressed ? 5000U : 0U)
            << "flags " << +test.flags;
    }
}

TEST_F(ForwardTest, RepliesReachTheKernelPlainAndInflated) {
    const std::string reply = SubmitReply(20, 50'000, Payload(50'000));
    host.Receive(ForwardMessage(7, reply));
    EXPECT_TRUE(kernel->Receive(reply.size()) == reply);
    host.Receive(ForwardMessage(7, Deflate(reply), static_cast<std::uint32_t>(reply.size())));
    EXPECT_TRUE(kernel->Receive(reply.size()) == reply) << "though we do not compress ourselves";
    ExpectAlive();
}

TEST_F(ForwardTest, RefusesMalformedMessagesAndGoesOn) {
    const std::string good = ForwardMessage(7, UnlinkReply(1));
    const auto with_datasize = [](std::uint32_t datasize) {
        return Message(kUsbipForward,
                       Bytes(7U) + Bytes(datasize) + Bytes(0U) + std::string("1234"));
    };
    host.Receive(Message(kUsbipForward, std::string(15, 'x')));
    EXPECT_TRUE(
        host.runtime.WaitForLine({4, "[usbipclient] invalid usbip_forward package size 31"}));
    host.Receive(with_datasize(5));
    EXPECT_TRUE(host.runtime.WaitForLine(
        {4, "[usbipclient] invalid usbip_forward package size 32 datasize 5"}));
    host.Receive(with_datasize(0xFFFFFFFF));
    EXPECT_TRUE(host.runtime.WaitForLine(
        {4, "[usbipclient] invalid usbip_forward package size 32 datasize -1"}));
    host.Receive(ForwardMessage(8, UnlinkReply(2)));  // never mapped: vanishes
    ExpectAlive();
    EXPECT_EQ(host.runtime.Lines(4).size(), 3U);
}

TEST_F(ForwardTest, ALyingRawsizeCommitsNoMemory) {
    if (kSanitized) GTEST_SKIP() << "sanitizers commit memory of their own";
    const std::string reply = UnlinkReply(1);
    const long before = PeakResidentKilobytes();
    host.Receive(ForwardMessage(7, Deflate(reply), kMaxRawSize));
    EXPECT_EQ(kernel->Receive(48), reply);
    EXPECT_LT(PeakResidentKilobytes() - before, 16 * 1024);

    host.Receive(ForwardMessage(7, Deflate(reply), kMaxRawSize + 1));
    EXPECT_TRUE(host.runtime.WaitForLine(
        {4, "[usbipclient] invalid usbip_forward rawsize 268435457, limit 268435456"}));
    ExpectAlive();
}

TEST_F(ForwardTest, DataThatDoesNotInflateEndsOnlyItsDevice) {
    host.Receive(MapMessage(8));
    const auto other = controller.WaitForAttach();
    ASSERT_TRUE(other);
    host.Receive(ForwardMessage(7, "no zlib stream", 1000));
    EXPECT_TRUE(host.runtime.WaitForLine({4, "[CUsbipClientLinux] CheckNetRecv invalid packet"}));
    host.Receive(ForwardMessage(8, UnlinkReply(5)));
    EXPECT_EQ(other->Receive(48), UnlinkReply(5));
}

TEST_F(ForwardTest, APduTooLongToFrameIsDroppedAlone) {
    auto* listener = dynamic_cast<IClientUsbipListenter*>(host.plugin.Get());
    ASSERT_NE(listener, nullptr);
    listener->OnUsbipPacket(7, pdu.data(), kMaxRawSize + 1);  // the data is not looked at
    EXPECT_EQ(host.runtime.Lines(4).size(), 1U);
    const std::string message = Sent(100);
    EXPECT_EQ(message, ForwardMessage(7, pdu));
}

}  // namespace
