// The plug-in's lifecycle, the version exchange, the device registry and the send thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>

#include "client/IClientUsbipListenter.h"
#include "support/FakeController.h"
#include "support/FakeHost.h"
#include "support/Messages.h"

namespace {

using Lines = std::vector<LogLine>;

const std::string kVersionResponse =
    FromHex("0C 00 00 00 0B 00 00 00 04 00 00 00 02 00 00 00 03 00 00 00");

std::string EndMessage(std::uint32_t devid) {
    return UnmapMessage(devid);
}  // the same bytes

const Lines kExitLines = {{1, "[usbipclient] ExitInstance"},
                          {8, "[usbipclient] start to clear devs"},
                          {8, "[usbipclient] finish to clear devs"},
                          {8, "[usbipclient] start to stop send thread"},
                          {8, "[usbipclient] ExitInstance finish"}};

class PluginTest : public ::testing::Test {
  protected:
    // The remote side maps `devid`, and the kernel has its socket.
    std::unique_ptr<KernelEnd> Map(std::uint32_t devid) {
        host.Receive(MapMessage(devid));
        auto kernel = controller.WaitForAttach();
        EXPECT_TRUE(kernel) << "device " << devid << " was not attached";
        return kernel;
    }
    // All that was received has been handled when the answer to a version request comes.
    void Settle() {
        host.Receive(VersionRequest(0));
        while (true) {
            const std::string message = host.stream->WaitForMessage();
            if (message.empty() || message == kVersionResponse) return;
            taken.push_back(message);
        }
    }

    FakeController controller;
    FakeHost host;
    std::vector<std::string> taken;  // by Settle
};

// --- lifecycle ---

TEST_F(PluginTest, ReleasedUnusedItExitsOnce) {
    host.runtime.Forget();
    host.plugin = nullptr;
    EXPECT_EQ(host.runtime.Lines(), kExitLines);
}

TEST_F(PluginTest, HoldsOneReferenceOnItsStream) {
    const CRefObj<FakeStream> other(new FakeStream);
    const long before = other->References();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(host.plugin->InitInstance(other.Get()), 0);
        EXPECT_EQ(other->References(), before + 1);
    }
    host.plugin->InitInstance(nullptr);
    EXPECT_EQ(other->References(), before);
    EXPECT_EQ(host.plugin->Run(), 1) << "without a stream it returns at once";
}

TEST_F(PluginTest, ExitStopsDevicesInOrderAndThenTheSendThread) {
    host.Start();
    const auto seven = Map(7);
    const auto three = Map(3);
    const auto five = Map(5);
    host.EndRun();
    EXPECT_EQ(host.runtime.Count({1, "[usbipclient] Run return"}), 1);
    host.runtime.Forget();
    EXPECT_EQ(host.plugin->ExitInstance(), 0);
    Lines expected = kExitLines;
    for (const char* devid : {"7", "5", "3"}) {
        expected.insert(expected.begin() + 2,
                        {1, std::string("[usbipclient] device end ") + devid});
    }
    Lines lines = host.runtime.Lines();
    std::erase_if(lines,
                  [](const LogLine& line) { return !line.text.starts_with("[usbipclient]"); });
    EXPECT_EQ(lines, expected);
    for (const auto* kernel : {&seven, &three, &five})
        EXPECT_TRUE((*kernel)->WaitForEnd());
    host.runtime.Forget();
    host.plugin->ExitInstance();
    EXPECT_EQ(host.runtime.Lines(), kExitLines) << "the second time nothing is left to stop";
}

TEST_F(PluginTest, RunsAgainWithANewStream) {
    host.Start();
    Map(1);
    host.EndRun();
    host.plugin->ExitInstance();
    host.stream = new FakeStream;
    dynamic_cast<IClientUsbipListenter&>(*host.plugin).OnUsbipDeviceError(9);
    host.Start();
    const auto kernel = Map(1);
    kernel->Send(Unlink(3));
    EXPECT_EQ(host.stream->WaitForMessage(), ForwardMessage(1, Unlink(3)))
        << "what was queued before the run is dropped";
}

TEST_F(PluginTest, ExitsWhileRunDispatches) {
    host.Start();
    std::atomic<bool> done{false};
    std::thread remote([&] {
        for (std::uint32_t i = 0; !done; ++i) {
            const std::uint32_t devid = i % 4;
            host.Receive(MapMessage(devid) + ForwardMessage(devid, UnlinkReply(1)) +
                         UnmapMessage((devid + 1) % 4));
            host.stream->WaitUntilDrained();
        }
    });
    for (int i = 0; i < 20; ++i) {
        const auto kernel = controller.WaitForAttach();
        host.plugin->ExitInstance();
    }
    done = true;
    remote.join();
    host.DropPlugin();
    EXPECT_EQ(host.runtime.Lines().back().text, "[usbipclient] ExitInstance finish");
}

// --- version exchange ---

TEST_F(PluginTest, AnswersEachVersionRequest) {
    host.Start();
    for (const int flags : {0x00, 0x01, 0x02, 0xFE, 0xFF}) {
        host.Receive(VersionRequest(static_cast<std::uint8_t>(flags)));
        EXPECT_EQ(host.stream->WaitForMessage(), kVersionResponse) << flags;
    }
    const std::string short_by_one = Message(kUsbipVersionReq, "abc");
    host.Receive(short_by_one + Message(kUsbipVersionRsp, "abcd"));
    EXPECT_TRUE(
        host.runtime.WaitForLine({4, "[usbipclient] invalid usbip_version_req package size 19"}));
    Settle();
    EXPECT_TRUE(taken.empty());
    EXPECT_EQ(host.runtime.Lines(4).size(), 1U) << "a received response is ignored silently";
}

TEST_F(PluginTest, WholeMessagesOnTheStreamFromBothThreads) {
    host.stream->SetWriteBlock(3);
    host.Start();
    const auto kernel = Map(1);
    constexpr std::uint32_t kCount = 200;
    for (std::uint32_t i = 0; i < kCount; ++i) {
        kernel->Send(Unlink(i));
        host.Receive(VersionRequest(0));
    }
    std::uint32_t next = 0;
    for (std::uint32_t i = 0; i < 2 * kCount; ++i) {
        const std::string message = host.stream->WaitForMessage();
        if (message == kVersionResponse) continue;
        ASSERT_EQ(message, ForwardMessage(1, Unlink(next))) << "message " << i;
        ++next;
    }
    EXPECT_EQ(next, kCount) << "every PDU, in order";
    EXPECT_FALSE(host.stream->WritesOverlapped());
}

// --- send thread ---

TEST_F(PluginTest, AFailedWriteLosesOneMessage) {
    host.Start();
    const auto kernel = Map(1);
    host.stream->FailWrites(1);
    kernel->Send(Unlink(1));
    EXPECT_TRUE(host.runtime.WaitForLine({4, "[usbipclient] Send2StreamRaw fail, type: B/5 ."}));
    kernel->Send(Unlink(2));
    EXPECT_EQ(host.stream->WaitForMessage(), ForwardMessage(1, Unlink(2)));
}

TEST_F(PluginTest, AWriteThatTakesNothingNeitherSpinsNorHangs) {
    host.Start();
    const auto kernel = Map(1);
    host.stream->SetWriteBlock(0);
    const long cpu = CpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID);
    kernel->Send(Unlink(1));
    EXPECT_TRUE(host.runtime.WaitForLine({4, "[usbipclient] Send2StreamRaw fail, type: B/5 ."}));
    EXPECT_LT(CpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID) - cpu, 500);
    EXPECT_LT(host.stream->WriteCalls(), 200);
    host.stream->SetWriteBlock(1000);
    kernel->Send(Unlink(2));
    EXPECT_EQ(host.stream->WaitForMessage(), ForwardMessage(1, Unlink(2)));
}

// --- device registry ---

TEST_F(PluginTest, MapsAndUnmaps) {
    host.Start();
    const auto seven = Map(7);
    const auto three = Map(3);
    EXPECT_EQ(
        host.runtime.Count({1, "[usbipclient] map device 7, busid 1 portid 4 instanceid disk"}), 1);
    host.Receive(UnmapMessage(7));
    EXPECT_TRUE(seven->WaitForEnd());
    EXPECT_EQ(host.stream->WaitForMessage(), EndMessage(7));
    EXPECT_EQ(host.runtime.Count({1, "[usbipclient] unmap device 7"}), 1);
    host.Receive(UnmapMessage(7) + UnmapMessage(0xFFFFFFFF) + ForwardMessage(3, UnlinkReply(1)));
    EXPECT_EQ(three->Receive(48), UnlinkReply(1)) << "the other device goes on";
    EXPECT_EQ(host.runtime.Count({1, "[usbipclient] unmap device 7"}), 2);
    EXPECT_EQ(host.runtime.Count({1, "[usbipclient] unmap device -1"}), 1);
}

TEST_F(PluginTest, AMapOfTheSameIdReplacesTheDevice) {
    host.Start();
    auto current = Map(5);
    for (int i = 0; i < 10;
         ++i) {  // the order below is a race for whoever starts the new one first
        host.runtime.Forget();
        const auto earlier = std::exchange(current, Map(5));
        EXPECT_TRUE(earlier->WaitForEnd());
        EXPECT_EQ(host.stream->WaitForMessage(), EndMessage(5)) << "the earlier one's end";
        const Lines lines = host.runtime.Lines(1);
        const auto at = [&](const char* text) {
            return std::find(lines.begin(), lines.end(), LogLine{1, text}) - lines.begin();
        };
        EXPECT_LT(at("[usbipclient] device end 5"),
                  at("[CUsbipClientLinux] start attach vhci device"));
        host.Receive(ForwardMessage(5, UnlinkReply(1)));
        EXPECT_EQ(current->Receive(48), UnlinkReply(1));
    }
}

TEST_F(PluginTest, AnEndedDeviceStaysMappedUntilUnmapped) {
    host.Start();
    auto kernel = Map(12);
    kernel->Close();
    EXPECT_EQ(host.stream->WaitForMessage(),
              FromHex("0C 00 00 00 0B 00 00 00 04 00 00 00 04 00 00 00 0C 00 00 00"));
    host.Receive(ForwardMessage(12, UnlinkReply(1)) + UnmapMessage(12));
    Settle();
    EXPECT_TRUE(taken.empty()) << "its end is reported once";
}

TEST_F(PluginTest, RefusesShortMessages) {
    host.Start();
    const std::string map = MapMessage(1).substr(sizeof(usbip_message_head));
    host.Receive(Message(kUsbipDevMap, map.substr(0, map.size() - 1)) +
                 Message(kUsbipDevUnmap, "abc"));
    EXPECT_TRUE(
        host.runtime.WaitForLine({4, "[usbipclient] invalid usbip_dev_map package size 843"}));
    EXPECT_TRUE(
        host.runtime.WaitForLine({4, "[usbipclient] invalid usbip_dev_unmap package size 19"}));
    EXPECT_TRUE(controller.Requests().empty());
}

TEST_F(PluginTest, AnInstanceIdWithoutItsNulEndsWithItsField) {
    host.Start();
    _USBIP_DEV dev = DeviceInfo();
    std::memset(dev.instanceid, 'n', sizeof dev.instanceid);
    std::memset(dev.reserved1, 'r', sizeof dev.reserved1);
    dev.busid = 0x80000000;
    host.Receive(MapMessage(1, dev));
    EXPECT_TRUE(host.runtime.WaitForLine(
        {1, "[usbipclient] map device 1, busid -2147483648 portid 4 instanceid " +
                std::string(256, 'n')}));
}

}  // namespace
