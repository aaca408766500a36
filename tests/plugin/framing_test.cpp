// Cutting the host stream into messages, and matching them, with version requests as probes.
#include "plugin/PluginTest.h"

namespace {

std::string Header(std::uint32_t length, std::uint8_t type) {
    return Bytes(_MESSAGE_HEADER{length, type, {}});
}

class FramingTest : public PluginTest {
  protected:
    FramingTest() { host.Start(); }
    // How many of these messages were taken for version requests.
    long Probes(const std::string& messages) {
        host.runtime.Forget();
        Handle(messages);
        return host.runtime.Count({8, "[usbipclient] version req"});
    }
    const std::string probe = VersionRequest(0);
};

TEST_F(FramingTest, MatchesByTypeAndLength) {
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

TEST_F(FramingTest, ReadsExactlyWhatIsMissing) {
    Handle(probe + Message(9, "longer than the first"));
    EXPECT_EQ(host.stream->ReadRequests(), (std::vector<unsigned long>{8, 12, 8, 29, 8}));
    for (const unsigned long block : {1UL, 2UL, 3UL, 7UL, 8UL, 9UL, 1000UL}) {
        host.stream->read_block = block;
        EXPECT_EQ(Probes(probe + Header(0, kUsbipChannel) + Message(9, "x") + probe), 2) << block;
    }
}

TEST_F(FramingTest, AStreamThatEndsWithinAMessageLeavesNothing) {
    for (const std::size_t length : {0UL, 7UL, 8UL, 15UL, 16UL, 19UL}) {
        EXPECT_EQ(Probes(probe.substr(0, length)), 0) << length;
        host.RunAgain();
        EXPECT_EQ(Probes(probe), 1) << length;
    }
}

}  // namespace
