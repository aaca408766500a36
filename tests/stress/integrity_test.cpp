// Nothing is lost, doubled, cut or reordered: many devices at once, both directions, all sizes,
// over a stream and sockets that take and give what they like. And what it leaves behind: nothing.
//
// XJ_STRESS_PDUS: how many in all. XJ_STRESS_CYCLES: how often a device is mapped and unmapped.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <random>

#include "stress/Traffic.h"
#include "support/FakeHost.h"
#include "support/Ledger.h"

namespace {

constexpr std::uint32_t kDevices = 16;
constexpr std::size_t kMaxInFlight = 32U << 20;  // bytes, per direction: queues are unbounded

// A host's stream over a socket pair whose other end is the remote side. Read and Write move
// random parts of what they are asked for.
class SocketStream : public IPluginStreamRaw, protected CReference {
  public:
    SocketStream() {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) != 0) std::abort();
    }
    ~SocketStream() override {
        close(ends_[0]);
        close(ends_[1]);
    }
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void Reserved1() override { std::abort(); }
    int Read(void* buf, unsigned long len, unsigned long* got, unsigned long) override {
        const ssize_t count = recv(ends_[0], buf, Part(len, read_random_), 0);
        if (count <= 0) return 1;
        *got = static_cast<unsigned long>(count);
        return 0;
    }
    int Write(const void* data, unsigned long len, unsigned long* written, unsigned long) override {
        const ssize_t count = send(ends_[0], data, Part(len, write_random_), MSG_NOSIGNAL);
        if (count <= 0) return 1;
        *written = static_cast<unsigned long>(count);
        return 0;
    }

    // The remote side's.
    void Feed(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t count = send(ends_[1], bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count <= 0) return;
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    std::string WaitForMessage() {  // empty: the stream has ended
        _MESSAGE_HEADER outer{};
        if (!Take(&outer, sizeof outer)) return {};
        std::string message = Bytes(outer) + std::string(outer.length, '\0');
        if (!Take(message.data() + sizeof outer, outer.length)) return {};
        return message;
    }
    void End() { shutdown(ends_[0], SHUT_RDWR); }

  private:
    bool Take(void* to, std::size_t size) {
        return size == 0 || recv(ends_[1], to, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }
    // All of it, as often as not.
    static unsigned long Part(unsigned long size, std::minstd_rand& random) {
        return random() % 2 == 0 ? size : 1 + random() % size;
    }
    int ends_[2] = {-1, -1};
    std::minstd_rand read_random_{1};   // the Run thread's
    std::minstd_rand write_random_{2};  // of whoever holds the module's write lock
};

// Bytes on their way, so that a fast producer does not fill the memory.
class Window {
  public:
    void Put(std::size_t size) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kPatience, [&] { return bytes_ < kMaxInFlight; });
        bytes_ += size;
    }
    void Take(std::size_t size) {
        const std::lock_guard lock(mutex_);
        bytes_ -= std::min(bytes_, size);
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t bytes_ = 0;
};

// Most PDUs are commands and small transfers, some are whole disk requests, a few are huge.
std::size_t SizeOf(std::uint32_t seqnum) {
    std::minstd_rand random(seqnum + 1);
    random.discard(3);
    const auto kind = random() % 10'000;
    const auto between = [&](std::size_t from, std::size_t to) {
        return from + random() % (to - from);
    };
    if (kind < 3000) return sizeof(usbip_header);
    if (kind < 9000) return between(48, 1024);
    if (kind < 9950) return between(1024, 16'384);
    if (kind < 9990) return between(65'536, 262'144);
    return between(1U << 20, (4U << 20) + 1);
}

class IntegrityTest : public ::testing::Test {
  protected:
    // The plug-in runs on the socket stream; the host's own stays unused.
    IntegrityTest() {
        host.plugin->InitInstance(stream.Get());
        run = std::thread([this] { host.plugin->Run(); });
    }
    ~IntegrityTest() override { EndRun(); }
    void EndRun() {
        stream->End();
        if (run.joinable()) run.join();
    }
    std::unique_ptr<KernelEnd> Map(std::uint32_t devid) {
        stream->Feed(MapMessage(devid));
        auto kernel = controller.WaitForAttach();
        EXPECT_TRUE(kernel) << "device " << devid << " was not attached";
        return kernel;
    }
    void Version(std::uint8_t flags) {
        stream->Feed(VersionRequest(flags));
        EXPECT_EQ(Parse<usbip_message_head>(stream->WaitForMessage()).inner.type, kUsbipVersionRsp);
    }

    FakeController controller{4, 16};
    FakeHost host;
    CRefObj<SocketStream> stream{new SocketStream};
    std::thread run;
};

// In each direction every device gets the numbers 0, 1, 2 ... in order, and at the end no more.
TEST_F(IntegrityTest, EveryPduArrivesOnceWholeAndInOrder) {
    const unsigned long pdus = FromEnvironment("XJ_STRESS_PDUS", kSanitized ? 8000 : 50'000);
    const auto count = static_cast<std::uint32_t>((pdus + kDevices * 2 - 1) / kDevices /
                                                  2);  // per device and direction
    std::vector<std::unique_ptr<KernelEnd>> kernels;
    for (std::uint32_t devid = 0; devid < kDevices; ++devid)
        kernels.push_back(Map(devid));
    std::atomic<int> wrong{0};
    std::atomic<std::uint64_t> bytes{0};
    const Stopwatch watch;
    for (std::uint32_t half = 0; half < 2; ++half) {
        Version(half == 0 ? 1 : 0);
        const std::uint32_t first = half * (count / 2);
        const std::uint32_t last = half == 0 ? count / 2 : count;
        Window to_peer;
        Window to_kernel;
        std::vector<std::thread> threads;
        for (std::uint32_t devid = 0; devid < kDevices; ++devid) {
            KernelEnd& kernel = *kernels[devid];
            threads.emplace_back([&, devid] {  // the kernel sends, in pieces
                std::minstd_rand random(devid + 1);
                for (std::uint32_t i = first; i < last; ++i) {
                    const std::string pdu = KernelPdu(i, SizeOf(i * kDevices + devid));
                    to_peer.Put(pdu.size());
                    std::string_view rest = pdu;
                    while (!rest.empty()) {
                        const std::size_t piece = 1 + random() % rest.size();
                        if (!kernel.Send(rest.substr(0, piece))) return void(++wrong);
                        rest.remove_prefix(piece);
                    }
                }
            });
            threads.emplace_back([&, devid] {  // the kernel reads
                for (std::uint32_t i = first; i < last; ++i) {
                    const std::size_t size = SizeOf(i * kDevices + devid + 7);
                    if (kernel.Receive(size) != PeerPdu(kPeerSeq + i, size)) return void(++wrong);
                    to_kernel.Take(size);
                    bytes += size;
                }
            });
        }
        threads.emplace_back([&] {  // the peer sends, to all in turn
            for (std::uint32_t i = first; i < last; ++i) {
                for (std::uint32_t devid = 0; devid < kDevices; ++devid) {
                    const std::string pdu = PeerPdu(kPeerSeq + i, SizeOf(i * kDevices + devid + 7));
                    to_kernel.Put(pdu.size());
                    stream->Feed((i + devid) % 3 == 0 ? CompressedForward(devid, pdu)
                                                      : ForwardMessage(devid, pdu));
                }
            }
        });
        std::vector<std::uint32_t> next(kDevices, first);  // the peer reads
        for (std::uint32_t left = (last - first) * kDevices; left > 0 && wrong == 0; --left) {
            const std::string message = stream->WaitForMessage();
            const std::string pdu = CarriedPdu(message);
            const auto devid = Parse<usbip_forward>(message).devid;
            const std::uint32_t seqnum = devid < kDevices ? next[devid]++ : 0;
            if (pdu != KernelPdu(seqnum, SizeOf(seqnum * kDevices + devid))) ++wrong;
            to_peer.Take(pdu.size());
            bytes += pdu.size();
        }
        if (wrong != 0) EndRun();  // frees whoever waits
        for (std::thread& thread : threads)
            thread.join();
        ASSERT_EQ(wrong, 0) << "PDUs lost, doubled, cut or out of order";
    }
    std::printf("%u PDUs, %lu MiB in %ld ms; peak %ld MiB\n", 2 * count * kDevices,
                bytes.load() >> 20, watch.Milliseconds(), PeakResidentKilobytes() >> 10);
    for (std::uint32_t devid = 0; devid < kDevices; ++devid) {
        stream->Feed(UnmapMessage(devid));
        EXPECT_EQ(stream->WaitForMessage(), UnmapMessage(devid)) << "and nothing before its end";
        EXPECT_EQ(kernels[devid]->Receive(1), "") << "device " << devid;
    }
}

long ResidentKilobytes() {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * sysconf(_SC_PAGESIZE) / 1024;
}

TEST_F(IntegrityTest, MappingAndUnmappingLeavesNothingBehind) {
    const unsigned long cycles = FromEnvironment("XJ_STRESS_CYCLES", 1000);
    Version(0);
    const Ledger ledger;
    long before = 0;
    long slowest = 0;
    const Stopwatch watch;
    for (unsigned long i = 0; i < cycles; ++i) {
        if (i == cycles / 10) before = ResidentKilobytes();  // the heap has taken its shape
        auto kernel = Map(3);
        ASSERT_TRUE(kernel->Send(KernelPdu(1, 48)));
        ASSERT_EQ(CarriedPdu(stream->WaitForMessage()), KernelPdu(1, 48));
        stream->Feed(ForwardMessage(3, PeerPdu(kPeerSeq, 100)));
        ASSERT_EQ(kernel->Receive(100), PeerPdu(kPeerSeq, 100));
        const Stopwatch unmap;
        stream->Feed(UnmapMessage(3));
        ASSERT_EQ(stream->WaitForMessage(), UnmapMessage(3));
        ASSERT_TRUE(kernel->WaitForEnd());
        slowest = std::max(slowest, unmap.Milliseconds());
        host.runtime.Forget();
    }
    const long growth = ResidentKilobytes() - before;
    std::printf("%lu cycles in %ld ms, slowest unmap %ld ms, growth %ld KiB\n", cycles,
                watch.Milliseconds(), slowest, growth);
    EXPECT_TRUE(ledger.Balanced());
    // The fake controller keeps every request: some 64 bytes. A leaked client is above 40 KiB.
    if (!kSanitized) {
        EXPECT_LT(growth, 512 + static_cast<long>(cycles) / 8);
    }
    for (const int state : controller.States())
        EXPECT_EQ(state, 4) << "a port is not free";
}

}  // namespace
