// What travels, the plug-in's lifecycle, the send thread and the device registry.
#include <algorithm>
#include <climits>
#include <fstream>

#include "client/IClientUsbipListenter.h"
#include "plugin/PluginTest.h"

namespace {

// All other tests trust the builders.
TEST(Wire, BytesOfEachKind) {
    const std::pair<std::string, const char*> rows[] = {
        {MapMessage(7).substr(0, 24),
         "44 03 00 00 0B 00 00 00 3C 03 00 00 03 00 00 00 07 00 00 00 64 69 73 6B"},
        {MapMessage(7).substr(820), "01 00 00 00 04 00 00 00 03 00 00 00 6B 1D 04 01"},
        {UnmapMessage(12), "0C 00 00 00 0B 00 00 00 04 00 00 00 04 00 00 00 0C 00 00 00"},
        {ForwardMessage(7, Unlink(3), 0x4142),
         "48 00 00 00 0B 00 00 00 40 00 00 00 05 00 00 00 07 00 00 00 30 00 00 00 42 41 00 00 "
         "00 00 00 02 00 00 00 03"},
        {SubmitIn(5, 0x102),
         "00 00 00 01 00 00 00 05 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00 00 00 01 02"},
        {SubmitOut(5, "A", 1),
         "00 00 00 01 00 00 00 05 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 "
         "00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 00 41 69 69 69 69 69 69 69 "
         "69 69 69 69 69 69 69 69 69"},
        {SubmitReply(6, 3, "ABC", 0),
         "00 00 00 03 00 00 00 06 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 03 "
         "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 41 42 43"},
        {UnlinkReply(9), "00 00 00 04 00 00 00 09"},
    };
    for (const auto& [built, start] : rows)
        EXPECT_EQ(built, FromHex(start).append(built.size() - FromHex(start).size(), '\0'))
            << start;
}

// --- lifecycle ---

TEST_F(PluginTest, EachExitStopsWhatThereIsInOrder) {
    const std::unique_ptr<KernelEnd> kernels[] = {Map(7), Map(3), Map(5)};
    ExpectLog(1, "start forward data loop", 3);
    host.EndRun();
    host.stream->failing_writes = 3;  // as that of a stream that has ended
    for (const std::string expected : {"357", ""}) {
        host.runtime.Forget();
        EXPECT_EQ(host.plugin->ExitInstance(), 0);
        EXPECT_TRUE(host.runtime.Lines(4).empty()) << "an orderly end is no failure";
        std::string ends;
        for (const LogLine& line : host.runtime.Lines(1))
            if (line.text.starts_with("[usbipclient] device end ")) ends += line.text.back();
        EXPECT_EQ(ends, expected);
    }
    for (const auto& kernel : kernels)
        EXPECT_TRUE(kernel->WaitForEnd());
}

TEST_F(PluginTest, ExitInstanceEndsAtOnceAndRunsAgainWithANewStream) {
    auto& listener = dynamic_cast<IClientUsbipListenter&>(*host.plugin);
    long fastest = LONG_MAX;
    for (int run = 0; run < 3; ++run) {
        listener.OnUsbipDeviceError(8);
        EXPECT_EQ(NextMessage(), UnmapMessage(8)) << "the send thread is there";
        usleep(20'000);  // in which it goes back to waiting
        const Stopwatch watch;
        host.plugin->ExitInstance();  // also while the stream is read
        fastest = std::min(fastest, watch.Milliseconds());
        host.EndRun();
        host.stream = new FakeStream;
        listener.OnUsbipDeviceError(9);
        host.Start();
        Handle("");
    }
    EXPECT_LT(fastest, 90) << "below any pause or time-out";
    Map(1)->Send(Unlink(3));
    ExpectForwarded(1, Unlink(3));  // what was queued before is dropped
}

TEST_F(PluginTest, NamesOfThreadsAndDevices) {
    _USBIP_DEV dev = DeviceInfo();
    std::memset(&dev, 'n', sizeof dev.instanceid + sizeof dev.reserved1);  // without its NUL
    dev.busid = 0x80000000;
    const std::unique_ptr<KernelEnd> kernels[] = {Map(7), Map(0xFFFFFFFF, dev)};
    ExpectLog(1, "[usbipclient] map device -1, busid -2147483648 portid 4 instanceid " +
                     std::string(256, 'n'));
    for (const std::string name :
         {"usbip-send", "usbip-work-7", "usbip-write-7", "usbip-work", "usbip-write"}) {
        const auto is_it = [&](const auto& task) {
            std::string comm;
            return std::getline(std::ifstream(task.path() / "comm"), comm) && comm == name;
        };
        EXPECT_TRUE(Eventually([&] {
            return std::ranges::count_if(std::filesystem::directory_iterator("/proc/self/task"),
                                         is_it) == 1;
        })) << name;
    }
}

// --- send thread ---

TEST_F(PluginTest, WholeMessagesOnTheStreamFromBothThreads) {
    host.stream->write_block = 3;
    const auto kernel = Map(1);
    for (std::uint32_t i = 0; i < 200; ++i) {
        kernel->Send(Unlink(i));
        host.Receive(VersionRequest(0));
    }
    for (std::uint32_t next = 0, i = 0; i < 400; ++i) {
        const std::string message = NextMessage();
        if (message == VersionResponse()) continue;
        ASSERT_EQ(message, ForwardMessage(1, Unlink(next++))) << "message " << i;
    }
    EXPECT_FALSE(host.stream->overlapped);
}

TEST_F(PluginTest, AWriteThatFailsOrTakesNothingLosesOneMessage) {
    const auto kernel = Map(1);
    for (const int failing : {1, 0}) {
        host.runtime.Forget();
        host.stream->failing_writes = failing;
        host.stream->write_block = 0;
        const long cpu = CpuMilliseconds();
        kernel->Send(Unlink(1));
        ExpectLog(4, "[usbipclient] Send2StreamRaw fail, type: B/5 .");
        EXPECT_LT(CpuMilliseconds() - cpu, 500);
        host.stream->write_block = 1000;
        kernel->Send(Unlink(2));
        ExpectForwarded(1, Unlink(2));
    }
}

// --- device registry ---

TEST_F(PluginTest, AMapOfTheSameIdReplacesTheDevice) {
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

// Those that could not be attached count, too.
TEST_F(PluginTest, MapsNoMoreDevicesThanAnybodyPlugsIn) {
    controller.RemoveDevice("vhci_hcd.0");
    std::string maps;
    for (std::uint32_t devid = 0; devid <= 256; ++devid)
        maps += MapMessage(devid);
    host.Receive(maps);
    EXPECT_EQ(NextMessage(), UnmapMessage(256));
    const LogLine line{4, "[usbipclient] map device 256 refused, 256 are mapped"};
    EXPECT_EQ(host.runtime.Count(line), 1);
    Handle(MapMessage(3) + UnmapMessage(0) + MapMessage(256));
    EXPECT_EQ(host.runtime.Count(line), 1) << "there is room for it now";
    EXPECT_TRUE(Silent());
}

// --- refused messages ---

TEST_F(PluginTest, RefusesMalformedMessagesAndGoesOn) {
    const auto kernel = Map(7);
    const auto cut = [](std::string message) {  // to a body one byte short
        const auto head = Parse<usbip_message_head>(message);
        message.pop_back();
        return Message(head.inner.type, message.substr(sizeof(usbip_message_head)));
    };
    const auto with_datasize = [](std::uint32_t datasize) {
        return Message(kUsbipForward, Bytes(7U) + Bytes(datasize) + Bytes(0U) + "1234");
    };
    const std::pair<std::string, const char*> rows[] = {
        {cut(VersionRequest(0)), "version_req package size 19"},
        {cut(MapMessage(1)), "dev_map package size 843"},
        {cut(UnmapMessage(7)), "dev_unmap package size 19"},
        {cut(ForwardMessage(7, "")), "forward package size 31"},
        {with_datasize(5), "forward package size 32 datasize 5"},
        {with_datasize(0xFFFFFFFF), "forward package size 32 datasize -1"},
        {ForwardMessage(7, "", kMaxRawSize + 1), "forward rawsize 268435457, limit 268435456"},
    };
    std::vector<LogLine> log;
    for (const auto& [message, line] : rows) {
        host.Receive(message);
        log.push_back({4, std::string("[usbipclient] invalid usbip_") + line});
    }
    // Never mapped: vanishes.
    host.Receive(ForwardMessage(8, UnlinkReply(2)) + UnmapMessage(0xFFFFFFFF));
    EXPECT_TRUE(Works(7, *kernel));
    EXPECT_EQ(host.runtime.Lines(4), log);
    EXPECT_EQ(host.runtime.Count({1, "[usbipclient] unmap device -1"}), 1);
    EXPECT_EQ(controller.Requests().size(), 1U);
    EXPECT_TRUE(Silent());
}

}  // namespace
