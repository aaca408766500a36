// Forwarding PDUs between the kernel and the remote side, plain and compressed.
#include "client/IClientUsbipListenter.h"
#include "plugin/PluginTest.h"

namespace {

class ForwardTest : public PluginTest {
  protected:
    ForwardTest() {
        host.Start();
        kernel = Map(7);
    }
    // A whole PDU of the given size from the kernel, and the message it became.
    std::string Sent(std::size_t pdu_size) {
        pdu = KernelPdu(++seqnum, pdu_size);
        EXPECT_TRUE(kernel->Send(pdu));
        return NextMessage();
    }

    std::unique_ptr<KernelEnd> kernel;
    std::string pdu;
    std::uint32_t seqnum = 0;
};

TEST_F(ForwardTest, CompressesAboveTheThresholdWhenAllowed) {
    const struct {
        std::uint8_t flags;
        std::size_t size;
        bool compressed;
    } cases[] = {{1, 49, false},     {1, 4096, false},    {1, 4097, true},   {0, 200'000, false},
                 {1, 200'000, true}, {0xFE, 5000, false}, {0xFF, 5000, true}};
    for (const auto& test : cases) {
        SCOPED_TRACE(std::to_string(test.size) + " bytes, flags " + std::to_string(test.flags));
        host.Receive(VersionRequest(test.flags));
        EXPECT_EQ(NextMessage(), VersionResponse());
        const std::string message = Sent(test.size);
        const auto forward = Parse<usbip_forward>(message);
        ASSERT_EQ(forward.rawsize, test.compressed ? test.size : 0);
        EXPECT_TRUE(CarriedPdu(message) == pdu);
        const std::string data = message.substr(28, forward.datasize);
        EXPECT_TRUE(message == ForwardMessage(7, data, forward.rawsize)) << "headers and filler";
    }
}

TEST_F(ForwardTest, RepliesReachTheKernelPlainAndInflated) {
    const std::string reply = PeerPdu(20, 50'000);
    // Inflated though we do not compress ourselves. One claims more than there is, as only the
    // first may: nothing else waits for the kernel then.
    for (const std::string& message : {ForwardMessage(7, Deflated(reply), kMaxRawSize),
                                       ForwardMessage(7, reply), CompressedForward(7, reply)}) {
        host.Receive(message);
        EXPECT_TRUE(kernel->Receive(reply.size()) == reply);
    }
    EXPECT_TRUE(Works(7, *kernel));
}

TEST_F(ForwardTest, APduTooLongToFrameIsDroppedAlone) {
    // The data is not looked at.
    dynamic_cast<IClientUsbipListenter&>(*host.plugin).OnUsbipPacket(7, "", kMaxRawSize + 1);
    EXPECT_EQ(host.runtime.Lines(4).size(), 1U);
    const std::string message = Sent(100);
    EXPECT_EQ(message, ForwardMessage(7, pdu));
}

}  // namespace
