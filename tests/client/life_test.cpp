// Mapped devices between the fake kernel and the remote side: how they are attached and how they
// end.
#include <csignal>

#include "client/SharedEnd.h"
#include "plugin/PluginTest.h"

namespace {

class DeviceTest : public PluginTest {
  protected:
    // Milliseconds until the device is gone.
    long Unmap(std::uint32_t devid) {
        const Stopwatch watch;
        Handle(UnmapMessage(devid));
        return watch.Milliseconds();
    }
};

// --- start and end ---

TEST_F(DeviceTest, AnUnmapIsPromptAndGivesEverythingBack) {
    const auto other = Map(1);
    ExpectLog(1, "start forward data loop");
    for (const std::size_t read : {0UL, 48UL}) {  // of what the peer has sent: 4 MiB, if any
        host.runtime.Forget();
        long fastest = LONG_MAX;
        for (int run = 1; run <= 3; ++run) {
            const Ledger ledger;
            const auto kernel = Map(5);
            ExpectLog(1, "start forward data loop", run);
            for (int i = 0; i < 4 && read != 0; ++i)
                Reply(SubmitReply(1, 1 << 20, std::string(1 << 20, 'x')));
            EXPECT_EQ(kernel->Receive(read).size(), read) << "writing has begun";
            fastest = std::min(fastest, Unmap(5));
            EXPECT_TRUE(host.runtime.Lines(4).empty()) << "an orderly end is no failure";
            EXPECT_TRUE(kernel->WaitForEnd());
            EXPECT_EQ(NextMessage(), UnmapMessage(5));
            kernel->Close();
            EXPECT_TRUE(ledger.Balanced());
        }
        EXPECT_LT(fastest, 300) << "below one poll period";
    }
    EXPECT_TRUE(Works(1, *other));
}

// As when a device ends while a reply is being written at once.
TEST(SharedEnd, IsClosedByTheLastToLeave) {
    const Ledger ledger;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    CSharedEnd end;
    EXPECT_FALSE(end.Visit()) << "not open yet";
    end.Open(ends[0]);
    EXPECT_TRUE(end.Visit());
    end.Shutdown();
    end.Leave(CSharedEnd::kReader | CSharedEnd::kWriter);
    EXPECT_EQ(fcntl(end.Get(), F_GETFD), 0) << "somebody writes";
    end.Leave(CSharedEnd::kVisitor);
    EXPECT_EQ(dup(ends[1]), ends[0]) << "the number is free";
    end.Leave(CSharedEnd::kVisitor);
    EXPECT_EQ(close(ends[0]), 0) << "the number's new owner has it still";
    EXPECT_FALSE(end.Visit());
    close(ends[1]);
    EXPECT_TRUE(ledger.Balanced());
}

TEST_F(DeviceTest, TheKernelsEndEndsItOnce) {
    const long descriptors = OpenDescriptors();
    const long inherited = OpenDescriptors(FD_CLOEXEC);
    const auto kernel = Map(12);
    EXPECT_EQ(OpenDescriptors(FD_CLOEXEC), inherited) << "a child of the host would keep it open";
    const long cpu = CpuMilliseconds();
    kernel->Close();
    ExpectLog(4, "read dev fail");
    EXPECT_EQ(NextMessage(), UnmapMessage(12));
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == descriptors; }))
        << "the client's end is closed before the unmap";
    Reply(UnlinkReply(1), 12);  // goes nowhere
    Handle(UnmapMessage(12));
    EXPECT_LT(CpuMilliseconds() - cpu, 1000) << "it does not spin";
    EXPECT_TRUE(Silent());
}

TEST_F(DeviceTest, AWriteAfterTheKernelLetGoRaisesNoSignal) {
    std::signal(SIGPIPE, SIG_DFL);  // would end the test program
    const auto kernel = Map(5);
    kernel->StopReading();
    Reply(UnlinkReply(1));
    ExpectLog(4, "[CUsbipClientLinux] write device fail");
    EXPECT_EQ(NextMessage(), UnmapMessage(5));
}

TEST_F(DeviceTest, SignalsEndNothing) {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // and no SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    const auto kernel = Map(5);
    const std::string reply = PeerPdu(1, 4 << 20);
    Reply(reply);
    EXPECT_EQ(kernel->Receive(48), reply.substr(0, 48)) << "writing has begun, and waits";
    for (int i = 0; i < 20; ++i, usleep(1000))
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
            tgkill(getpid(), std::stoi(task.path().filename()), SIGUSR1);
    EXPECT_TRUE(kernel->Receive(reply.size() - 48) == reply.substr(48));
    EXPECT_TRUE(Works(5, *kernel));
    EXPECT_EQ(host.runtime.Lines(4), std::vector<LogLine>());
}

// --- attach ---

TEST_F(DeviceTest, FailsToAttachWithoutReportingAnEnd) {
    const Ledger ledger;
    controller.refusal = EBUSY;
    long fastest = LONG_MAX;
    for (const std::string what : {"attach", "attach", "open", "open"}) {
        if (what == "open") controller.RemoveDevice("vhci_hcd.0");
        host.runtime.Forget();
        Handle(MapMessage(5) + ForwardMessage(5, UnlinkReply(1)));
        ExpectLog(4, "[CUsbipClientLinux]  vhci " + what + " fail");
        EXPECT_TRUE(ledger.Balanced()) << "what it does not need is given back";
        fastest = std::min(fastest, Unmap(5));
    }
    EXPECT_LT(fastest, 300) << "below one wait of the write thread";
    EXPECT_TRUE(Silent());
}

// The kernel still deals with the first request when the others come, and go.
TEST_F(DeviceTest, ASlowAttachHoldsUpNobodyAndMayOutliveItsDevice) {
    controller.held_port = 0;
    host.Receive(MapMessage(5));
    EXPECT_TRUE(controller.WaitForRequests(1));
    const auto other = Map(6);
    EXPECT_EQ(other->port, 1U) << "the first one's port is taken";
    EXPECT_TRUE(Works(6, *other));
    Handle(UnmapMessage(6));
    EXPECT_EQ(NextMessage(), UnmapMessage(6));
    host.Receive(UnmapMessage(5));
    ExpectLog(1, "[usbipclient] unmap device 5");
    controller.held_port = -1;
    EXPECT_TRUE(controller.WaitForAttach()->WaitForEnd());
    EXPECT_EQ(NextMessage(), UnmapMessage(5));
}

TEST_F(DeviceTest, ManyAtOnceGetPortsOfTheirOwn) {
    for (std::uint32_t devid = 0; devid < 8; ++devid)
        host.Receive(MapMessage(devid));
    unsigned ports = 0;
    std::unique_ptr<KernelEnd> kernels[8];
    for (auto& kernel : kernels)
        if ((kernel = controller.WaitForAttach())) ports |= 1U << kernel->port;
    EXPECT_EQ(ports, 0xFFU) << "all eight high-speed ports, each once";
    EXPECT_EQ(controller.Requests().size(), 8U) << "and nobody was refused";
}

}  // namespace
