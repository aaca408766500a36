// The plug-in's lifecycle, the version exchange, the device registry and the send thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "client/IClientUsbipListenter.h"
#include "plugin/PluginTest.h"

namespace {

const std::string kVersionResponse =
    FromHex("0C 00 00 00 0B 00 00 00 04 00 00 00 02 00 00 00 03 00 00 00");

// The plug-in's own lines since the runtime last forgot, each behind its level.
std::vector<std::string> OwnLines(const FakeRuntime& runtime) {
    std::vector<std::string> own;
    for (const LogLine& line : runtime.Lines()) {
        if (line.text.starts_with("[usbipclient] "))
            own.push_back(std::to_string(line.level) + line.text.substr(13));
    }
    return own;
}

std::vector<std::string> ExitLines(std::initializer_list<std::string> ends = {}) {
    std::vector<std::string> lines = {"1 ExitInstance", "8 start to clear devs",
                                      "8 finish to clear devs", "8 start to stop send thread",
                                      "8 ExitInstance finish"};
    lines.insert(lines.begin() + 2, ends);
    return lines;
}

// --- lifecycle ---

TEST_F(PluginTest, ReleasedUnusedItExitsOnce) {
    host.plugin = nullptr;
    EXPECT_EQ(OwnLines(host.runtime), ExitLines());
}

TEST_F(PluginTest, HoldsOneReferenceOnItsStream) {
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(host.plugin->InitInstance(host.stream.Get()), 0);
        EXPECT_EQ(host.stream->References(), 2);
    }
    host.plugin->InitInstance(nullptr);
    EXPECT_EQ(host.stream->References(), 1);
    EXPECT_EQ(host.plugin->Run(), 1) << "without a stream it returns at once";
}

TEST_F(PluginTest, ExitStopsDevicesInOrderAndThenTheSendThread) {
    host.Start();
    const std::unique_ptr<KernelEnd> kernels[] = {Map(7), Map(3), Map(5)};
    host.EndRun();
    ExpectLog(1, "[usbipclient] Run return");
    host.runtime.Forget();
    EXPECT_EQ(host.plugin->ExitInstance(), 0);
    EXPECT_EQ(OwnLines(host.runtime),
              ExitLines({"1 device end 3", "1 device end 5", "1 device end 7"}));
    for (const auto& kernel : kernels)
        EXPECT_TRUE(kernel->WaitForEnd());
    host.runtime.Forget();
    host.plugin->ExitInstance();
    EXPECT_EQ(OwnLines(host.runtime), ExitLines()) << "the second time nothing is left to stop";
}

TEST_F(PluginTest, RunsAgainWithANewStream) {
    host.Start();
    Map(1);
    host.EndRun();
    host.plugin->ExitInstance();
    host.stream = new FakeStream;
    dynamic_cast<IClientUsbipListenter&>(*host.plugin).OnUsbipDeviceError(9);
    host.Start();
    Map(1)->Send(Unlink(3));
    EXPECT_EQ(NextMessage(), ForwardMessage(1, Unlink(3))) << "what was queued before is dropped";
}

// --- version exchange ---

TEST_F(PluginTest, AnswersEachVersionRequest) {
    host.Start();
    for (const int flags : {0x00, 0x01, 0x02, 0xFE, 0xFF}) {
        host.Receive(Message(kUsbipVersionRsp, "abcd"));  // ignored
        host.Receive(VersionRequest(static_cast<std::uint8_t>(flags)));
        EXPECT_EQ(NextMessage(), kVersionResponse) << flags;
    }
    EXPECT_TRUE(host.stream->Written().empty());
    EXPECT_TRUE(host.runtime.Lines(4).empty()) << "a received response is ignored silently";
}

TEST_F(PluginTest, WholeMessagesOnTheStreamFromBothThreads) {
    host.stream->SetWriteBlock(3);
    host.Start();
    const auto kernel = Map(1);
    for (std::uint32_t i = 0; i < 200; ++i) {
        kernel->Send(Unlink(i));
        host.Receive(VersionRequest(0));
    }
    for (std::uint32_t next = 0, i = 0; i < 400; ++i) {
        const std::string message = NextMessage();
        if (message == kVersionResponse) continue;
        ASSERT_EQ(message, ForwardMessage(1, Unlink(next++))) << "message " << i;
    }
    EXPECT_FALSE(host.stream->WritesOverlapped());
}

// --- send thread ---

TEST_F(PluginTest, AWriteThatFailsOrTakesNothingLosesOneMessage) {
    host.Start();
    const auto kernel = Map(1);
    for (const bool fail : {true, false}) {
        host.runtime.Forget();
        if (fail) host.stream->FailWrites(1);
        if (!fail) host.stream->SetWriteBlock(0);
        const long cpu = CpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID);
        kernel->Send(Unlink(1));
        ExpectLog(4, "[usbipclient] Send2StreamRaw fail, type: B/5 .");
        EXPECT_LT(CpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID) - cpu, 500);
        host.stream->SetWriteBlock(1000);
        kernel->Send(Unlink(2));
        EXPECT_EQ(NextMessage(), ForwardMessage(1, Unlink(2)))
            << (fail ? "failed" : "nothing taken");
    }
}

// --- device registry ---

// The end of a device is reported with the bytes of an unmap.
TEST_F(PluginTest, MapsAndUnmaps) {
    host.Start();
    const auto seven = Map(7);
    const auto three = Map(3);
    ExpectLog(1, "[usbipclient] map device 7, busid 1 portid 4 instanceid disk");
    host.Receive(UnmapMessage(7));
    EXPECT_TRUE(seven->WaitForEnd());
    EXPECT_EQ(NextMessage(), UnmapMessage(7));
    host.runtime.Forget();
    host.Receive(UnmapMessage(7) + UnmapMessage(0xFFFFFFFF));
    EXPECT_TRUE(Works(3, *three));
    EXPECT_EQ(OwnLines(host.runtime),
              (std::vector<std::string>{"1 unmap device 7", "1 unmap device -1"}));
}

TEST_F(PluginTest, AMapOfTheSameIdReplacesTheDevice) {
    host.Start();
    auto current = Map(5);
    // Whoever starts the new one first may win the race for the order below once.
    for (int i = 0; i < 10; ++i) {
        host.runtime.Forget();
        const auto earlier = std::exchange(current, Map(5));
        EXPECT_TRUE(earlier->WaitForEnd());
        EXPECT_EQ(NextMessage(), UnmapMessage(5)) << "the earlier one's end";
        const auto lines = host.runtime.Lines(1);
        const auto end = std::ranges::find(lines, LogLine{1, "[usbipclient] device end 5"});
        const LogLine start{1, "[CUsbipClientLinux] start attach vhci device"};
        EXPECT_NE(std::find(end, lines.end(), start), lines.end()) << "it started before the end";
        EXPECT_TRUE(Works(5, *current));
    }
}

TEST_F(PluginTest, AnEndedDeviceStaysMappedUntilUnmapped) {
    host.Start();
    Map(12)->Close();
    EXPECT_EQ(NextMessage(),
              FromHex("0C 00 00 00 0B 00 00 00 04 00 00 00 04 00 00 00 0C 00 00 00"));
    host.Receive(ForwardMessage(12, UnlinkReply(1)) + UnmapMessage(12) + VersionRequest(0));
    EXPECT_EQ(NextMessage(), kVersionResponse) << "its end is reported once";
    host.DropPlugin();
    EXPECT_TRUE(host.stream->Written().empty()) << "also at the exit";
}

TEST_F(PluginTest, RefusesShortMessages) {
    host.Start();
    const std::string map = MapMessage(1).substr(sizeof(usbip_message_head));
    host.Receive(Message(kUsbipDevMap, map.substr(1)) + Message(kUsbipDevUnmap, "abc") +
                 Message(kUsbipVersionReq, "abc"));
    ExpectLog(4, "[usbipclient] invalid usbip_dev_map package size 843");
    ExpectLog(4, "[usbipclient] invalid usbip_dev_unmap package size 19");
    ExpectLog(4, "[usbipclient] invalid usbip_version_req package size 19");
    EXPECT_TRUE(controller.Requests().empty());
    EXPECT_TRUE(host.stream->Written().empty());
}

TEST_F(PluginTest, AnInstanceIdWithoutItsNulEndsWithItsField) {
    host.Start();
    _USBIP_DEV dev = DeviceInfo();
    std::memset(&dev, 'n', sizeof dev.instanceid + sizeof dev.reserved1);
    dev.busid = 0x80000000;
    host.Receive(MapMessage(1, dev));
    ExpectLog(1, "[usbipclient] map device 1, busid -2147483648 portid 4 instanceid " +
                     std::string(256, 'n'));
}

}  // namespace
