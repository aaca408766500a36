// One device client between a fake kernel and a listener: attach, both directions, and its ends.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <thread>

#include "client/IClientUsbipListenter.h"
#include "client/USBIPClientLinux.h"
#include "fakes/FakeController.h"
#include "fakes/FakeHost.h"
#include "fakes/Messages.h"
#include "module/runtime/XJModRuntime.h"

namespace {

// Takes what the client reports. References are not counted: it outlives the client.
class Listener : public IClientUsbipListenter {
  public:
    long AddRef() override { return 1; }
    long Release() override { return 1; }
    void OnUsbipPacket(unsigned int devid, const char* data, unsigned long len) override {
        EXPECT_EQ(devid, 5U);
        Under(mutex_, [&] { packets_.emplace_back(data, len); });
        changed_.notify_all();
    }
    void OnUsbipDeviceError(unsigned int devid) override {
        EXPECT_EQ(devid, 5U);
        ++ends;
    }
    std::string WaitForPacket() {  // empty: none came
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, kPatience, [&] { return !packets_.empty(); })) return {};
        std::string packet = std::move(packets_.front());
        packets_.pop_front();
        return packet;
    }
    std::size_t Packets() { return CopiedUnder(mutex_, packets_).size(); }

    std::atomic<int> ends{0};

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> packets_;  // guarded by mutex_
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
        EXPECT_EQ(OpenDescriptors(), descriptors) << "not given back";
        CXJModRuntime::Instance()->SetRuntime(nullptr);
    }

    std::unique_ptr<KernelEnd> Attach() {
        EXPECT_TRUE(client->Run());
        auto kernel = controller.WaitForAttach();
        EXPECT_TRUE(kernel) << "not attached";
        return kernel;
    }
    void ExpectLog(int level, const std::string& text, int times = 1) {
        EXPECT_TRUE(runtime.WaitForLine({level, text}, times)) << text;
    }
    void StopsPromptly() {
        const Stopwatch watch;
        client->Stop();
        EXPECT_LT(watch.Milliseconds(), 300) << "below one poll period";
    }
    void Reply(const std::string& pdu) { client->Forward(pdu.data(), pdu.size()); }

    FakeRuntime runtime;
    FakeController controller;
    Listener listener;
    // The last ten words of a dumped header.
    const std::string zeroes =
        " 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 "
        "00000000";
    CRefObj<IUsbipClient> client{new CUsbipClientLinux};
    const long descriptors = OpenDescriptors();
};

// --- start and end ---

TEST_F(ClientTest, AttachesWithItsDescription) {
    const auto kernel = Attach();
    ExpectLog(1, "start forward data loop");
    const std::string fd = kernel->request.substr(2, kernel->request.find(' ', 2) - 2);
    EXPECT_EQ(kernel->request, "0 " + fd + " 65540 3");
    std::string log;
    for (const LogLine& line : runtime.Lines(1)) {
        if (!line.text.starts_with("[linuxvhci]")) log += line.text + '\n';
    }
    EXPECT_EQ(log,
              "[CUsbipClientLinux] start attach vhci device\n"
              "[CUsbipClientLinux] attach vid: 1d6b, pid: 0104\n"
              "[CUsbipClientLinux] attach sucess\n"
              "start forward data loop\n");
    EXPECT_TRUE(client->Run()) << "already running";
    EXPECT_EQ(controller.Requests().size(), 1U);
    EXPECT_EQ(client->GetDevId(), 5U);
    EXPECT_EQ(client->GetDevInfo()->pid, 0x0104);
}

TEST_F(ClientTest, StopGivesEverythingBackPromptlyAndCanBeRepeated) {
    using Monitor = OBJECT_MONITOR<CBaseThread>;
    const auto threads = Monitor::_new - Monitor::_delete;
    StopsPromptly();
    for (int run = 1; run <= 3; ++run) {
        auto kernel = Attach();
        ExpectLog(1, "start forward data loop", run);
        StopsPromptly();
        EXPECT_TRUE(kernel->WaitForEnd());
        kernel.reset();
        EXPECT_EQ(listener.ends, run);
        client->Stop();
        EXPECT_EQ(OpenDescriptors(), descriptors);
        EXPECT_EQ(Monitor::_new - Monitor::_delete, threads);
    }
    ExpectLog(1, "[CUsbipClientLinux] work loop exit", 3);
}

TEST_F(ClientTest, TheKernelsEndEndsIt) {
    const auto kernel = Attach();
    const long cpu = CpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID);
    kernel->Close();
    ExpectLog(4, "read dev fail");
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == descriptors; }))
        << "the client's end is closed without Stop";
    EXPECT_LT(CpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID) - cpu, 1000) << "it does not spin";
    EXPECT_EQ(listener.ends, 1);
    Reply(UnlinkReply(1));  // goes nowhere
    StopsPromptly();
    EXPECT_EQ(listener.ends, 1);
}

TEST_F(ClientTest, StopIsPromptWhenTheKernelNoLongerReads) {
    const auto kernel = Attach();
    for (int i = 0; i < 4; ++i)
        Reply(SubmitReply(1, 1 << 20, std::string(1 << 20, 'x')));
    EXPECT_EQ(kernel->Receive(48).size(), 48U) << "the write thread is at work";
    StopsPromptly();
}

TEST_F(ClientTest, AWriteAfterTheKernelLetGoRaisesNoSignal) {
    std::signal(SIGPIPE, SIG_DFL);  // would end the test program
    const auto kernel = Attach();
    kernel->StopReading();
    Reply(UnlinkReply(1));
    ExpectLog(4, "[CUsbipClientLinux] write device fail");
    EXPECT_TRUE(Eventually([&] { return listener.ends != 0; }));
}

// --- failing to attach ---

TEST_F(ClientTest, FailsToAttachWithoutReportingAnEnd) {
    for (const std::string what : {"attach", "open"}) {
        controller.RefuseAttaches(EBUSY);
        if (what == "open") controller.RemoveDevice("vhci_hcd.0");
        EXPECT_TRUE(client->Run()) << what;
        ExpectLog(4, "[CUsbipClientLinux]  vhci " + what + " fail");
        ExpectLog(1, "[CUsbipClientLinux] 5 work thread prepare quit", what == "open" ? 2 : 1);
        Reply(UnlinkReply(1));
        StopsPromptly();
        EXPECT_EQ(listener.ends, 0) << what;
    }
}

TEST_F(ClientTest, WaitsForADeviceThatIsBeingEnumerated) {
    controller.Occupy(0, 6, "1-1");
    client->Run();
    ExpectLog(4, "[linuxvhci] open refresh imported list fail");
    StopsPromptly();
    EXPECT_TRUE(controller.Requests().empty());
    EXPECT_EQ(listener.ends, 0) << "Stop ends the wait";
    runtime.Forget();
    client->Run();
    ExpectLog(4, "[linuxvhci] open refresh imported list fail");
    controller.AddUsbDevice("1-1", {});
    const auto kernel = controller.WaitForAttach();
    ASSERT_TRUE(kernel);
    EXPECT_EQ(kernel->port, 1U);
    EXPECT_EQ(runtime.Count({4, "[CUsbipClientLinux]  vhci open fail"}), 0);
}

TEST_F(ClientTest, ManyAtOnceGetPortsOfTheirOwn) {
    std::vector<CRefObj<IUsbipClient>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back(new CUsbipClientLinux);
        clients.back()->SetDevInfo(DeviceInfo());
    }
    for (const auto& one : clients)
        one->Run();
    unsigned ports = 0;
    std::vector<std::unique_ptr<KernelEnd>> kernels;
    while (kernels.size() < clients.size()) {
        kernels.push_back(controller.WaitForAttach());
        ASSERT_TRUE(kernels.back());
        ports |= 1U << kernels.back()->port;
    }
    EXPECT_EQ(ports, 0xFFU) << "all eight high-speed ports, each once";
    EXPECT_EQ(controller.Requests().size(), 8U) << "and nobody was refused";
}

// --- kernel to peer ---

TEST_F(ClientTest, CutsTheKernelsBytesIntoPdus) {
    const auto kernel = Attach();
    usbip_header not_iso = PduHeader(USBIP_CMD_SUBMIT, 7);
    not_iso.u.cmd_submit.number_of_packets = kUsbipNotIso;
    // One is longer than the buffer.
    const std::string pdus[] = {Unlink(1),
                                Bytes(not_iso),
                                SubmitIn(2, 512),
                                SubmitIn(6, 1 << 20),
                                SubmitOut(3, std::string(31, 'x'), 2),
                                SubmitOut(5, std::string(200'000, 'z')),
                                SubmitOut(4, std::string(1000, 'y'))};
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
    const std::pair<std::string, LogLine> cases[] = {
        {UnlinkReply(0x0A0B), {1, "unkonw command 0x4 hdr 00000004 00000A0B" + zeroes}},
        {Bytes(header),
         {4, "PDU of 8589934624 bytes is too long, hdr 00000001 00000001" +
                 zeroes.substr(0, 4 * 9) + " FFFFFFF0 00000000 10000000" +
                 zeroes.substr(0, 3 * 9)}},
    };
    for (const auto& [bytes, line] : cases) {
        runtime.Forget();
        const auto kernel = Attach();
        kernel->Send(bytes);
        ExpectLog(line.level, "[CUsbipClientLinux] dev " + line.text);
        ExpectLog(4, "read dev fail");
        EXPECT_TRUE(kernel->WaitForEnd()) << line;
        client->Stop();
    }
    EXPECT_EQ(listener.ends, 2);
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
    ExpectLog(4, "[CUsbipClientLinux] CheckNetRecv invalid");
}

TEST_F(ClientTest, InvalidRepliesEndTheWriteThreadOnly) {
    const std::pair<std::string, LogLine> cases[] = {
        {"", {4, "CheckNetRecv invalid packet"}},
        {UnlinkReply(1).substr(0, 47), {4, "CheckNetRecv invalid packet"}},
        {Unlink(1), {1, "net unkonw command 0x2 hdr 00000002 00000001" + zeroes}},
        {SubmitReply(1, 64, std::string(52, 'x')), {4, "CheckNetRecv invalid"}},
        {SubmitReply(1, 0, "", 2).substr(0, 79), {4, "CheckNetRecv invalid"}},
    };
    for (const auto& [reply, line] : cases) {
        runtime.Forget();
        const auto kernel = Attach();
        Reply(reply);
        ExpectLog(line.level, "[CUsbipClientLinux] " + line.text);
        ExpectLog(1, "[CUsbipClientLinux] 5 write thread prepare quit");
        kernel->Send(Unlink(77));
        EXPECT_EQ(listener.WaitForPacket(), Unlink(77)) << "the kernel's commands still pass";
        EXPECT_EQ(runtime.Count({1, "[CUsbipClientLinux] work loop exit"}), 0);
        client->Stop();
    }
}

}  // namespace
