// One device client between a fake kernel and a listener: attach, both directions, and its ends.
#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <thread>

#include "client/IClientUsbipListenter.h"
#include "client/USBIPClientLinux.h"
#include "module/XJModRuntime.h"
#include "support/FakeController.h"
#include "support/FakeHost.h"
#include "support/Messages.h"

namespace {

// Takes what the client reports. References are not counted: it outlives the client.
class Listener : public IClientUsbipListenter {
  public:
    long AddRef() override { return 1; }
    long Release() override { return 1; }
    void OnUsbipPacket(unsigned int devid, const char* data, unsigned long len) override {
        const std::lock_guard lock(mutex_);
        EXPECT_EQ(devid, 5U);
        packets_.emplace_back(data, len);
        changed_.notify_all();
    }
    void OnUsbipDeviceError(unsigned int devid) override {
        const std::lock_guard lock(mutex_);
        EXPECT_EQ(devid, 5U);
        ++ends_;
        changed_.notify_all();
    }

    std::string WaitForPacket() {  // empty: none came
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, kPatience, [&] { return !packets_.empty(); })) return {};
        std::string packet = std::move(packets_.front());
        packets_.pop_front();
        return packet;
    }
    bool WaitForEnd() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return ends_ != 0; });
    }
    int Ends() {
        const std::lock_guard lock(mutex_);
        return ends_;
    }
    std::size_t Packets() {
        const std::lock_guard lock(mutex_);
        return packets_.size();
    }

  private:
    std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::deque<std::string> packets_;
    int ends_ = 0;
};

class ClientTest : public ::testing::Test {
  protected:
    ClientTest() {
        CXJModRuntime::Instance()->SetRuntime(&runtime);
        client->SetListener(&listener);
        client->SetDevId(5);
        client->SetDevInfo(DeviceInfo());
    }
    ~ClientTest() override {
        client->Stop();
        CXJModRuntime::Instance()->SetRuntime(nullptr);
    }

    std::unique_ptr<KernelEnd> Attach() {
        EXPECT_TRUE(client->Run());
        auto kernel = controller.WaitForAttach();
        EXPECT_TRUE(kernel) << "not attached";
        return kernel;
    }
    void Reply(const std::string& pdu) { client->Forward(pdu.data(), pdu.size()); }

    FakeRuntime runtime;
    FakeController controller;
    Listener listener;
    CRefObj<IUsbipClient> client{new CUsbipClientLinux};
};

// --- start and end ---

TEST_F(ClientTest, AttachesWithItsDescription) {
    const auto kernel = Attach();
    ASSERT_TRUE(runtime.WaitForLine({1, "start forward data loop"}));
    std::string request = kernel->request;
    const std::string fd = request.substr(2, request.find(' ', 2) - 2);
    EXPECT_EQ(request, "0 " + fd + " 65540 3");
    std::vector<LogLine> lines = runtime.Lines(1);
    std::erase_if(lines, [](const LogLine& line) { return line.text.starts_with("[linuxvhci]"); });
    EXPECT_EQ(lines, (std::vector<LogLine>{{1, "[CUsbipClientLinux] start attach vhci device"},
                                           {1, "[CUsbipClientLinux] attach vid: 1d6b, pid: 0104"},
                                           {1, "[CUsbipClientLinux] attach sucess"},
                                           {1, "start forward data loop"}}));
    EXPECT_TRUE(client->Run()) << "already running";
    EXPECT_EQ(controller.Requests().size(), 1U);
    EXPECT_EQ(client->GetDevId(), 5U);
    EXPECT_EQ(client->GetDevInfo()->pid, 0x0104);
}

TEST_F(ClientTest, StopGivesEverythingBackPromptlyAndCanBeRepeated) {
    using Monitor = OBJECT_MONITOR<CBaseThread>;
    const auto threads = Monitor::_new - Monitor::_delete;
    const long descriptors = OpenDescriptors();
    client->Stop();
    EXPECT_EQ(OpenDescriptors(), descriptors) << "nothing to close before Run";
    for (int run = 1; run <= 3; ++run) {
        auto kernel = Attach();
        ASSERT_TRUE(runtime.WaitForLine({1, "start forward data loop"}, run));
        const Stopwatch watch;
        client->Stop();
        EXPECT_LT(watch.Milliseconds(), 300) << "below one poll period";
        EXPECT_TRUE(kernel->WaitForEnd());
        kernel.reset();
        EXPECT_EQ(listener.Ends(), run);
        client->Stop();
        EXPECT_EQ(OpenDescriptors(), descriptors);
        EXPECT_EQ(Monitor::_new - Monitor::_delete, threads);
    }
    EXPECT_EQ(runtime.Count({1, "[CUsbipClientLinux] work loop exit"}), 3);
}

TEST_F(ClientTest, TheKernelsEndEndsIt) {
    const long descriptors = OpenDescriptors();
    auto kernel = Attach();
    const long cpu = CpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID);
    kernel->Close();
    EXPECT_TRUE(listener.WaitForEnd());
    EXPECT_TRUE(runtime.WaitForLine({4, "read dev fail"}));
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == descriptors; }))
        << "the client's end is closed without Stop";
    EXPECT_LT(CpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID) - cpu, 1000) << "it does not spin";
    Reply(UnlinkReply(1));  // goes nowhere
    client->Stop();
    EXPECT_EQ(listener.Ends(), 1);
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(ClientTest, StopIsPromptWhenTheKernelNoLongerReads) {
    const auto kernel = Attach();
    const std::string reply = SubmitReply(1, 1 << 20, std::string(1 << 20, 'x'));
    for (int i = 0; i < 4; ++i)
        Reply(reply);
    EXPECT_TRUE(kernel->WaitForUnread(1)) << "the write thread is at work";
    const Stopwatch watch;
    client->Stop();
    EXPECT_LT(watch.Milliseconds(), 300);
}

TEST_F(ClientTest, AWriteAfterTheKernelLetGoRaisesNoSignal) {
    std::signal(SIGPIPE, SIG_DFL);  // would end the test program
    const auto kernel = Attach();
    kernel->StopReading();
    Reply(UnlinkReply(1));
    EXPECT_TRUE(runtime.WaitForLine({4, "[CUsbipClientLinux] write device fail"}));
    EXPECT_TRUE(listener.WaitForEnd());
}

TEST_F(ClientTest, StopUnderLoadInBothDirections) {
    for (int run = 0; run < 10; ++run) {
        auto kernel = Attach();
        std::thread sender([&] {
            while (kernel->Send(SubmitOut(1, std::string(1000, 'x')))) {
            }
        });
        for (std::uint32_t i = 0; i < 50; ++i)
            Reply(UnlinkReply(i));
        EXPECT_FALSE(listener.WaitForPacket().empty());
        client->Stop();
        sender.join();
    }
}

// --- failing to attach ---

TEST_F(ClientTest, FailsToAttachWithoutReportingAnEnd) {
    const struct {
        const char* what;
        std::function<void()> spoil;
        LogLine line;
    } cases[] = {
        {"refused by the kernel",
         [&] { controller.RefuseAttaches(EBUSY); },
         {4, "[CUsbipClientLinux]  vhci attach fail"}},
        {"driver not loaded",
         [&] { controller.RemoveDevice("vhci_hcd.0"); },
         {4, "[CUsbipClientLinux]  vhci open fail"}},
    };
    const long descriptors = OpenDescriptors();
    int quits = 0;
    for (const auto& test : cases) {
        test.spoil();
        EXPECT_TRUE(client->Run()) << test.what;
        EXPECT_TRUE(runtime.WaitForLine(test.line)) << test.what;
        EXPECT_TRUE(
            runtime.WaitForLine({1, "[CUsbipClientLinux] 5 work thread prepare quit"}, ++quits));
        Reply(UnlinkReply(1));
        const Stopwatch watch;
        client->Stop();
        EXPECT_LT(watch.Milliseconds(), 300) << test.what;
        EXPECT_EQ(listener.Ends(), 0) << test.what;
        EXPECT_EQ(OpenDescriptors(), descriptors) << test.what;
    }
}

TEST_F(ClientTest, WaitsForADeviceThatIsBeingEnumerated) {
    controller.Occupy(0, 6, "1-1");
    EXPECT_TRUE(client->Run());
    EXPECT_TRUE(runtime.WaitForLine({4, "[linuxvhci] open refresh imported list fail"}));
    controller.AddUsbDevice("1-1", {});
    const auto kernel = controller.WaitForAttach();
    ASSERT_TRUE(kernel);
    EXPECT_EQ(kernel->port, 1U);
    EXPECT_EQ(runtime.Count({4, "[CUsbipClientLinux]  vhci open fail"}), 0);
}

TEST_F(ClientTest, StopEndsTheWaitForEnumeration) {
    controller.Occupy(0, 6, "1-1");
    client->Run();
    EXPECT_TRUE(runtime.WaitForLine({4, "[linuxvhci] open refresh imported list fail"}));
    const Stopwatch watch;
    client->Stop();
    EXPECT_LT(watch.Milliseconds(), 300);
    EXPECT_TRUE(controller.Requests().empty());
    EXPECT_EQ(listener.Ends(), 0);
}

TEST_F(ClientTest, ManyAtOnceGetPortsOfTheirOwn) {
    std::vector<CRefObj<IUsbipClient>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back(new CUsbipClientLinux);
        clients.back()->SetDevInfo(DeviceInfo());
    }
    for (const auto& one : clients)
        one->Run();
    std::vector<std::unique_ptr<KernelEnd>> kernels;
    unsigned ports = 0;
    for (std::size_t i = 0; i < clients.size(); ++i) {
        kernels.push_back(controller.WaitForAttach());
        ASSERT_TRUE(kernels.back()) << i;
        ports |= 1U << kernels.back()->port;
    }
    EXPECT_EQ(ports, 0xFFU) << "all eight high-speed ports, each once";
    EXPECT_EQ(controller.Requests().size(), 8U) << "and nobody was refused";
    for (const auto& one : clients)
        one->Stop();
}

// --- kernel to peer ---

TEST_F(ClientTest, CutsTheKernelsBytesIntoPdus) {
    const auto kernel = Attach();
    usbip_header not_iso = PduHeader(USBIP_CMD_SUBMIT, 7);
    not_iso.u.cmd_submit.number_of_packets = kUsbipNotIso;
    const std::string pdus[] = {
        Unlink(1),
        Bytes(not_iso),
        SubmitIn(2, 512),
        SubmitOut(3, std::string(31, 'x'), 2),
        SubmitOut(4, std::string(1000, 'y')),
        SubmitOut(5, std::string(200'000, 'z')),  // grows the buffer
        SubmitIn(6, 1 << 20),
    };
    std::string all;
    for (const std::string& pdu : pdus)
        all += pdu;
    for (const std::size_t piece : {all.size(), std::size_t{7}, std::size_t{1000}}) {
        std::thread writer([&] {
            for (std::size_t at = 0; at < all.size(); at += piece)
                kernel->Send(all.substr(at, piece));
        });
        for (const std::string& pdu : pdus)
            EXPECT_TRUE(listener.WaitForPacket() == pdu) << pdu.size() << " in pieces of " << piece;
        writer.join();
    }
    EXPECT_EQ(listener.Packets(), 0U);
}

TEST_F(ClientTest, RefusesWhatTheKernelWouldNeverSend) {
    usbip_header header = PduHeader(USBIP_CMD_SUBMIT, 1);
    header.u.cmd_submit.transfer_buffer_length = htobe32(0xFFFFFFF0);
    header.u.cmd_submit.number_of_packets = htobe32(0x10000000);
    const struct {
        const char* what;
        std::string bytes;
        LogLine line;
    } cases[] = {
        {"reply from the kernel",
         UnlinkReply(0x0A0B),
         {1,
          "[CUsbipClientLinux] dev unkonw command 0x4 hdr 00000004 00000A0B 00000000 00000000 "
          "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000"}},
        {"lengths that do not fit 32 bits",
         Bytes(header),
         {4,
          "[CUsbipClientLinux] dev PDU of 8589934624 bytes is too long, hdr 00000001 00000001 "
          "00000000 00000000 00000000 00000000 FFFFFFF0 00000000 10000000 00000000 00000000 "
          "00000000"}},
    };
    int ends = 0;
    for (const auto& test : cases) {
        const auto kernel = Attach();
        kernel->Send(test.bytes);
        EXPECT_TRUE(runtime.WaitForLine(test.line)) << test.what;
        EXPECT_TRUE(runtime.WaitForLine({4, "read dev fail"}, ++ends)) << test.what;
        EXPECT_TRUE(kernel->WaitForEnd()) << test.what;
        client->Stop();
        EXPECT_EQ(listener.Ends(), ends) << test.what;
    }
}

TEST_F(ClientTest, WarnsAboveManyUnansweredOutTransfers) {
    const auto kernel = Attach();
    const LogLine warning{4, "[CUsbipClientLinux] out seq list overflow"};
    for (std::uint32_t i = 0; i < 258; ++i) {
        kernel->Send(SubmitOut(i, ""));
        EXPECT_EQ(listener.WaitForPacket(), SubmitOut(i, ""));
        EXPECT_EQ(runtime.Count(warning), i < 257 ? 0 : 1) << i << " were unanswered before";
    }
    Reply(SubmitReply(257, 64));  // recorded all the same: 48 bytes, no data
    EXPECT_EQ(kernel->Receive(48), SubmitReply(257, 64));
}

// --- peer to kernel ---

TEST_F(ClientTest, PassesRepliesWhoseLengthFitsTheirCommand) {
    const auto kernel = Attach();
    kernel->Send(SubmitOut(10, "data"));
    kernel->Send(SubmitOut(11, "data", 3));
    listener.WaitForPacket();
    listener.WaitForPacket();
    const std::string replies[] = {
        SubmitReply(10, 4),                         // answers OUT: no data
        SubmitReply(11, 4, "", 3),                  // answers OUT, isochronous
        SubmitReply(10, 4, "data"),                 // a second one is taken for an IN reply
        SubmitReply(12, 64, std::string(64, 'x')),  // answers IN
        SubmitReply(13, 64, std::string(64, 'x'), 2),
        UnlinkReply(14) + "and more",  // surplus is passed on
        SubmitReply(15, 1 << 20, std::string(1 << 20, 'y')),
    };
    for (const std::string& reply : replies)
        Reply(reply);
    for (const std::string& reply : replies)
        EXPECT_TRUE(kernel->Receive(reply.size()) == reply) << reply.substr(0, 48);
    Reply(SubmitReply(11, 4));  // its command has been answered: data is missing now
    EXPECT_TRUE(runtime.WaitForLine({4, "[CUsbipClientLinux] CheckNetRecv invalid"}));
}

TEST_F(ClientTest, InvalidRepliesEndTheWriteThreadOnly) {
    const LogLine invalid_packet{4, "[CUsbipClientLinux] CheckNetRecv invalid packet"};
    const LogLine invalid{4, "[CUsbipClientLinux] CheckNetRecv invalid"};
    const LogLine unknown{
        1,
        "[CUsbipClientLinux] net unkonw command 0x2 hdr 00000002 00000001 00000000 00000000 "
        "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000"};
    const struct {
        std::string reply;
        LogLine line;
    } cases[] = {
        {"", invalid_packet},
        {UnlinkReply(1).substr(0, 47), invalid_packet},
        {Unlink(1), unknown},
        {SubmitReply(1, 64, std::string(52, 'x')), invalid},
        {SubmitReply(1, 0, "", 2).substr(0, 79), invalid},
    };
    for (const auto& test : cases) {
        runtime.Forget();
        const auto kernel = Attach();
        Reply(test.reply);
        EXPECT_TRUE(runtime.WaitForLine(test.line)) << test.line;
        EXPECT_TRUE(runtime.WaitForLine({1, "[CUsbipClientLinux] 5 write thread prepare quit"}));
        kernel->Send(Unlink(77));
        EXPECT_EQ(listener.WaitForPacket(), Unlink(77)) << "the kernel's commands still pass";
        EXPECT_EQ(runtime.Count({1, "[CUsbipClientLinux] work loop exit"}), 0);
        client->Stop();
    }
}

}  // namespace
