// The figures of docs/limits.md, measured and held to a bound. Each prints what it measured.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <fstream>

#include "stress/Traffic.h"
#include "support/FakeHost.h"
#include "support/Ledger.h"

namespace {

// The largest memory of the process since the last reset, in KiB.
long PeakKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string word;
    long peak = 0;
    while (status >> word)
        if (word == "VmHWM:") status >> peak;
    return peak;
}
void ResetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

class LimitsTest : public ::testing::Test {
  protected:
    LimitsTest() {
        host.Start();
        EXPECT_TRUE(host.stream->WaitUntilDrained());
    }
    std::unique_ptr<KernelEnd> Map(std::uint32_t devid) {
        host.Receive(MapMessage(devid));
        auto kernel = controller.WaitForAttach();
        EXPECT_TRUE(kernel) << "device " << devid << " was not attached";
        return kernel;
    }
    FakeController controller{4, 16};
    FakeHost host;
};

TEST_F(LimitsTest, PerDeviceAndExit) {
    constexpr std::uint32_t kDevices = 16;
    const long threads = Threads();
    const long descriptors = OpenDescriptors();
    std::vector<std::unique_ptr<KernelEnd>> kernels;
    for (std::uint32_t devid = 0; devid < kDevices; ++devid)
        kernels.push_back(Map(devid));
    EXPECT_EQ(Threads() - threads, 2 * kDevices);
    // One is the kernel's, which the fake keeps in this process. The module's own is closed by
    // then.
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors() - descriptors == 2 * kDevices; }));
    // The slowest end: the kernel neither reads what is queued for it nor stops sending.
    std::atomic<bool> done{false};
    std::thread kernel([&] {
        while (!done && kernels[0]->Send(Unlink(1))) {
        }
    });
    for (std::uint32_t devid = 0; devid < kDevices; ++devid)
        host.Receive(ForwardMessage(devid, PeerPdu(kPeerSeq, 1 << 20)));
    EXPECT_TRUE(host.stream->WaitUntilDrained());
    host.EndRun();
    const Stopwatch watch;
    host.plugin->ExitInstance();
    const long exit = watch.Milliseconds();
    done = true;
    kernel.join();
    std::printf("ExitInstance with %u busy devices: %ld ms\n", kDevices, exit);
    EXPECT_LT(exit, kSanitized ? 10'000 : 2000);
}

TEST_F(LimitsTest, IdleExit) {
    host.EndRun();
    const Stopwatch watch;
    host.plugin->ExitInstance();
    std::printf("ExitInstance when idle: %ld ms\n", watch.Milliseconds());
    EXPECT_LT(watch.Milliseconds(), kSanitized ? 10'000 : 2000);
}

// Round trips of one device, first alone, then while another is mapped and unmapped.
TEST_F(LimitsTest, StallOfOthers) {
    const auto kernel = Map(1);
    int forwarding = 2;
    const auto worst = [&](int unmaps) {
        std::atomic<bool> done{unmaps == 0};
        std::thread other([&] {
            for (int i = 0; i < unmaps; ++i) {
                auto end = Map(2);
                EXPECT_TRUE(host.runtime.WaitForLine({1, "start forward data loop"}, forwarding++));
                host.Receive(ForwardMessage(2, PeerPdu(kPeerSeq, 1 << 20)) + UnmapMessage(2));
                EXPECT_TRUE(end->WaitForEnd());
            }
            done = true;
        });
        std::chrono::steady_clock::duration slowest{0};
        for (std::uint32_t i = 0; i < 500 || !done; ++i) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_TRUE(kernel->Send(Unlink(i)));
            std::string message = host.stream->WaitForMessage();
            while (message == UnmapMessage(2))
                message = host.stream->WaitForMessage();
            EXPECT_EQ(message, ForwardMessage(1, Unlink(i)));
            host.Receive(ForwardMessage(1, UnlinkReply(i)));
            EXPECT_EQ(kernel->Receive(48), UnlinkReply(i));
            slowest = std::max(slowest, std::chrono::steady_clock::now() - start);
        }
        other.join();
        return std::chrono::duration<double, std::milli>(slowest).count();
    };
    const double alone = worst(0);
    const double disturbed = worst(200);
    std::printf("slowest round trip: alone %.1f ms, while another is unmapped %.1f ms\n", alone,
                disturbed);
    EXPECT_LT(disturbed, kSanitized ? 5000 : 500);
}

class MemoryLimitsTest : public LimitsTest {
  protected:
    void SetUp() override {
        if (kSanitized) GTEST_SKIP() << "sanitizers take memory of their own";
        kernel = Map(1);
        ASSERT_TRUE(host.runtime.WaitForLine({1, "start forward data loop"}));
        ResetPeak();
        before = PeakKilobytes();
    }
    void Expect(const char* input, long most_kilobytes) {
        const long grown = PeakKilobytes() - before;
        std::printf("%s: %ld KiB\n", input, grown);
        EXPECT_LT(grown, most_kilobytes) << input;
    }
    std::unique_ptr<KernelEnd> kernel;
    long before = 0;
};

TEST_F(MemoryLimitsTest, LyingLengthOfAMessage) {
    host.Receive(Bytes(_MESSAGE_HEADER{0xFFFFFFF0, kUsbipChannel, {}}) + std::string(1000, 'x'));
    EXPECT_TRUE(host.stream->WaitUntilDrained());
    Expect("outer length of 4 GiB, 1000 bytes sent", 1024);
}

TEST_F(MemoryLimitsTest, LyingRawSize) {
    host.Receive(ForwardMessage(1, Deflated(UnlinkReply(1)), kMaxRawSize));
    EXPECT_EQ(kernel->Receive(48), UnlinkReply(1));
    Expect("rawsize of 256 MiB for 48 bytes", 1024);
}

TEST_F(MemoryLimitsTest, Bomb) {
    const std::string bomb = CompressedForward(1, std::string(kMaxRawSize, '\0'));
    malloc_trim(0);
    ResetPeak();
    before = PeakKilobytes();
    host.Receive(bomb);
    EXPECT_TRUE(host.runtime.WaitForLine({1, "[CUsbipClientLinux] 1 write thread prepare quit"}));
    EXPECT_TRUE(host.stream->WaitUntilDrained());
    Expect("zlib stream of 256 MiB", (2 * kMaxRawSize >> 10) + 4096);
}

TEST_F(MemoryLimitsTest, LyingLengthOfTheKernel) {
    auto command = Parse<usbip_header>(KernelPdu(9, 48));
    command.u.cmd_submit.transfer_buffer_length = htobe32(kUsbipMaxPdu - sizeof command);
    EXPECT_TRUE(kernel->Send(Bytes(command) + "x"));
    EXPECT_TRUE(kernel->WaitUntilTaken());
    Expect("PDU of 256 MiB claimed by the kernel", (kUsbipMaxPdu >> 10) + 1024);
}

TEST_F(MemoryLimitsTest, QueuesGrowWithWhatIsSent) {
    constexpr std::uint32_t kCount = 20'000;
    for (std::uint32_t i = 0; i < kCount; ++i) {
        host.Receive(ForwardMessage(1, UnlinkReply(i)));
        if (i % 100 == 99) {
            EXPECT_TRUE(host.stream->WaitUntilDrained());
        }
    }
    Expect("20,000 PDUs of 48 bytes for a kernel that does not read", kCount / 2);
    for (std::uint32_t i = 0; i < kCount; ++i)
        EXPECT_TRUE(kernel->Send(SubmitOut(i, "")));
    EXPECT_TRUE(kernel->WaitUntilTaken());
    Expect("and 20,000 unanswered OUT transfers, taken by the peer", kCount);
}

}  // namespace
