// Cutting the host stream into messages and matching them, with version requests as probes; and
// forwards, plain and compressed.
#include "client/IClientUsbipListenter.h"
#include "plugin/PluginTest.h"

namespace {

std::string Header(std::uint32_t length, std::uint8_t type) {
    return Bytes(_MESSAGE_HEADER{length, type, {}});
}

class MessagesTest : public PluginTest {
  protected:
    // How many of these messages were taken for version requests.
    long Probes(const std::string& messages) {
        host.runtime.Forget();
        Handle(messages);
        return host.runtime.Count({8, "[usbipclient] version req"});
    }
    const std::string probe = VersionRequest(0);
};

TEST_F(MessagesTest, MatchByTypeAndLength) {
    const std::string body = probe.substr(sizeof(usbip_message_head));
    const std::pair<std::string, const char*> rows[] = {
        {Message(9, body), "inner type not in the map"},
        {VersionResponse(), "what the module itself sends"},
        {Header(12, 0x0C) + Header(4, kUsbipVersionReq) + body, "another channel"},
        {Header(0, kUsbipChannel), "nothing behind the outer header"},
        {Header(7, kUsbipChannel) + Header(0, kUsbipVersionReq).substr(0, 7), "15 bytes"},
        {Header(12, kUsbipChannel) + Header(5, kUsbipVersionReq) + body, "inner length too long"},
    };
    for (const auto& [message, what] : rows)
        EXPECT_EQ(Probes(message), 0) << what;
    const std::string surplus = Header(16, kUsbipChannel) + probe.substr(8) + "more";
    EXPECT_EQ(Probes(surplus + probe), 2);
    EXPECT_EQ(host.runtime.Lines(4), std::vector<LogLine>());
}

TEST_F(MessagesTest, AreReadWithoutAByteTooMany) {
    Handle(probe + Message(9, "longer than the first"));
    EXPECT_EQ(host.stream->ReadRequests(), (std::vector<unsigned long>{8, 12, 8, 29, 8}));
    for (const unsigned long block : {1UL, 2UL, 3UL, 7UL, 8UL, 9UL, 1000UL}) {
        host.stream->read_block = block;
        EXPECT_EQ(Probes(probe + Header(0, kUsbipChannel) + Message(9, "x") + probe), 2) << block;
    }
    // What ends within a message leaves nothing for the next stream.
    for (const std::size_t length : {0UL, 7UL, 8UL, 15UL, 16UL, 19UL}) {
        EXPECT_EQ(Probes(probe.substr(0, length)), 0) << length;
        host.RunAgain();
        EXPECT_EQ(Probes(probe), 1) << length;
    }
}

TEST_F(MessagesTest, CarryPdusBothWays) {
    const auto kernel = Map(7);
    const struct {
        std::uint8_t flags;
        std::size_t size;
        bool compressed;
    } rows[] = {{1, 49, false},     {1, 4096, false},   {1, 4097, true},    {0, 200'000, false},
                {1, 200'000, true}, {0xFF, 5000, true}, {0xFE, 5000, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.size) + " bytes, flags " + std::to_string(row.flags));
        host.Receive(VersionRequest(row.flags));
        EXPECT_EQ(NextMessage(), VersionResponse());
        const std::string pdu = KernelPdu(1, row.size);
        kernel->Send(pdu);
        const std::string message = NextMessage();
        const auto forward = Parse<usbip_forward>(message);
        ASSERT_EQ(forward.rawsize, row.compressed ? row.size : 0);
        EXPECT_TRUE(CarriedPdu(message) == pdu);
        const std::string data = message.substr(28, forward.datasize);
        EXPECT_TRUE(message == ForwardMessage(7, data, forward.rawsize)) << "headers and filler";
    }
    // Inflated though we do not compress ourselves. One claims more than there is, as only the
    // first may: nothing else waits for the kernel then.
    const std::string reply = PeerPdu(20, 50'000);
    for (const std::string& message : {ForwardMessage(7, Deflated(reply), kMaxRawSize),
                                       ForwardMessage(7, reply), CompressedForward(7, reply)}) {
        host.Receive(message);
        EXPECT_TRUE(kernel->Receive(reply.size()) == reply);
    }
    // Too long to frame: dropped alone. The data is not looked at.
    dynamic_cast<IClientUsbipListenter&>(*host.plugin).OnUsbipPacket(7, "", kMaxRawSize + 1);
    EXPECT_EQ(host.runtime.Lines(4).size(), 1U);
    EXPECT_TRUE(Works(7, *kernel));
}

}  // namespace
