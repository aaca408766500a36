// Faults by the book, in the library as it ships: whatever fails, the host lives on, nothing hangs,
// and everything is given back.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include "stress/Traffic.h"
#include "support/FakeHost.h"
#include "support/Ledger.h"

// --- the faults ---

namespace {

constexpr long kHangMilliseconds = kSanitized ? 10'000 : 2000;

const void* module_base = nullptr;

// Whether this return address lies in the module. What the fakes do on its threads never fails.
bool called_by_module(const void* address) {
    Dl_info info{};
    return module_base != nullptr && dladdr(address, &info) != 0 && info.dli_fbase == module_base;
}

std::atomic<int> failing_threads{0};  // so many of the module's next thread creations fail

template <typename Function>
Function next_definition(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                            void* (*start)(void*), void* argument) {
    static const auto real = next_definition<decltype(&pthread_create)>("pthread_create");
    if (failing_threads > 0 && called_by_module(__builtin_return_address(0))) {
        --failing_threads;
        return EAGAIN;
    }
    return real(thread, attributes, start, argument);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// Of the module's allocations (a log line's excepted), counted from 1, those from `first` to
// `last` fail, and all of `too_large` bytes and more.
namespace {

constexpr std::size_t kLogLine = 4096;

struct {
    std::atomic<bool> armed{false};
    std::atomic<long> count{0};
    std::atomic<long> first{0};
    std::atomic<long> last{0};
    std::atomic<std::size_t> too_large{SIZE_MAX};
    std::atomic<bool> log_lines{false};  // fail, too
} memory;

bool fails(std::size_t size, const void* caller) {
    if (!memory.armed || !called_by_module(caller)) return false;
    if (size == kLogLine) return memory.log_lines;
    const long number = ++memory.count;
    return (number >= memory.first && number <= memory.last) || size >= memory.too_large;
}

}  // namespace

extern "C" void* __libc_malloc(std::size_t);
extern "C" void* __libc_calloc(std::size_t, std::size_t);
extern "C" void* __libc_realloc(void*, std::size_t);

EXPORTED void* malloc(std::size_t size) {
    return fails(size, __builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}
EXPORTED void* calloc(std::size_t count, std::size_t size) {
    return fails(count * size, __builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}
EXPORTED void* realloc(void* data, std::size_t size) {
    return fails(size, __builtin_return_address(0)) ? nullptr : __libc_realloc(data, size);
}
__attribute__((visibility("default"))) void* operator new(std::size_t size) {
    void* data = fails(size, __builtin_return_address(0)) ? nullptr : __libc_malloc(size);
    if (data == nullptr) throw std::bad_alloc();
    return data;
}
__attribute__((visibility("default"))) void* operator new(std::size_t size,
                                                          const std::nothrow_t&) noexcept {
    return fails(size, __builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

#endif

namespace {

xjmod_entrypoint* Module() {
    static xjmod_entrypoint* const module = [] {
        void* library = dlopen(XJ_MODULE, RTLD_NOW);
        if (library == nullptr) throw std::runtime_error(dlerror());
        const auto get =
            reinterpret_cast<xjmod_get_entrypoint_fn>(dlsym(library, "xjmod_get_entrypoint"));
        Dl_info info{};
        dladdr(reinterpret_cast<void*>(get), &info);
        module_base = info.dli_fbase;
        return get();
    }();
    return module;
}

class FaultTest : public ::testing::Test {
  protected:
    std::unique_ptr<KernelEnd> Map(std::uint32_t devid) {
        host.Receive(MapMessage(devid));
        auto kernel = controller.WaitForAttach();
        EXPECT_TRUE(kernel) << "device " << devid << " was not attached";
        ++attaches;
        return kernel;
    }
    // What else was attached, as far as it was.
    std::vector<std::unique_ptr<KernelEnd>> Attached() {
        std::vector<std::unique_ptr<KernelEnd>> kernels;
        for (; attaches < controller.Requests().size(); ++attaches)
            kernels.push_back(controller.WaitForAttach());
        return kernels;
    }
    // The device works, both ways.
    void ExpectAlive(std::uint32_t devid, KernelEnd& kernel) {
        const std::string pdu = Unlink(++seqnum);
        EXPECT_TRUE(kernel.Send(pdu));
        std::string message = host.stream->WaitForMessage();
        while (!message.empty() && message != ForwardMessage(devid, pdu))
            message = host.stream->WaitForMessage();
        EXPECT_FALSE(message.empty()) << "device " << devid << " no longer sends";
        host.Receive(ForwardMessage(devid, UnlinkReply(seqnum)));
        EXPECT_EQ(kernel.Receive(48), UnlinkReply(seqnum)) << "device " << devid;
    }
    // Waits until the Run thread has handled everything, or has returned for want of memory.
    bool Settle() {
        return Eventually([&] { return host.stream->Drained() || RunReturned(); });
    }
    bool RunReturned() const { return host.runtime.Count({1, "[usbipclient] Run return"}) != 0; }
    void Drop() {
        const Stopwatch watch;
        host.DropPlugin();
        EXPECT_LT(watch.Milliseconds(), kHangMilliseconds);
    }

    Ledger ledger;
    FakeController controller{4, 16};
    FakeHost host{Module()};
    std::size_t attaches = 0;
    std::uint32_t seqnum = 0;
};

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// One session of everything, on a plug-in that goes on living, while allocations fail: two in a
// row, since buffers are asked for twice, or all from the nth on.
class MemoryTest : public FaultTest, public ::testing::WithParamInterface<long> {
  protected:
    void Session() {
        const std::string pdu = PeerPdu(kPeerSeq, 5000);
        for (const std::string& message : {VersionRequest(1), MapMessage(2), ForwardMessage(2, pdu),
                                           CompressedForward(2, pdu), MapMessage(3), MapMessage(2)})
            host.Receive(message);
        ASSERT_TRUE(Settle());
        ASSERT_TRUE(Eventually([&] {  // every work thread has attached its device, or has failed
            const auto lines = host.runtime.Lines();
            const auto count = [&](const char* start) {
                return std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
                    return line.text.starts_with(start);
                });
            };
            return count("[CUsbipClientLinux] start attach") ==
                   count("[CUsbipClientLinux] attach sucess") + count("[CUsbipClientLinux]  vhci");
        }));
        for (const auto& kernel : Attached()) {
            kernel->Send(KernelPdu(1, 100) + KernelPdu(2, 50'000));
            ASSERT_TRUE(kernel->WaitUntilTaken()) << "a device that is neither alive nor ended";
        }
        host.Receive(UnmapMessage(3));
        ASSERT_TRUE(Settle());
    }
};

TEST_P(MemoryTest, EachAllocationMayFail) {
    host.Start();
    ASSERT_TRUE(host.stream->WaitUntilDrained());
    const long descriptors = OpenDescriptors();
    const long threads = Threads();
    int returns = 0;
    long n = 1;
    for (bool passed = false; !passed; n += GetParam() == 1 ? 1 : 5) {
        memory.count = 0;
        memory.first = n;
        memory.last = n + GetParam();
        memory.armed = true;
        const Stopwatch watch;
        host.runtime.Forget();
        Session();
        memory.armed = false;
        passed = memory.count < n;
        if (RunReturned()) {
            ++returns;
            host.runtime.Forget();
            host.RunAgain();
        }
        host.Receive(UnmapMessage(2) + UnmapMessage(3));
        ASSERT_TRUE(Settle());
        Attached();
        ASSERT_LT(watch.Milliseconds(), kHangMilliseconds) << "allocation " << n;
        ASSERT_TRUE(Eventually([&] {
            return OpenDescriptors() == descriptors && Threads() == threads &&
                   FakeController::LiveUdevObjects() == 0;
        })) << "allocation "
            << n << " leaks";
    }
    std::printf("%ld allocations, Run returned %d times\n", n, returns);
    EXPECT_GT(n, 40) << "the module's allocations are seen";
    ExpectAlive(2, *Map(2));
    Drop();
    EXPECT_TRUE(ledger.Balanced());
}
INSTANTIATE_TEST_SUITE_P(TwoInARow, MemoryTest, ::testing::Values(1));
INSTANTIATE_TEST_SUITE_P(AllFromHere, MemoryTest, ::testing::Values(1'000'000));

TEST_F(FaultTest, LogLinesMayBeLost) {
    host.Start();
    memory.first = memory.last = 0;
    memory.log_lines = memory.armed = true;
    const auto kernel = Map(1);
    ExpectAlive(1, *kernel);
    memory.log_lines = memory.armed = false;
    EXPECT_EQ(host.runtime.Count({1, "[CUsbipClientLinux] attach sucess"}), 0);
}

TEST_F(FaultTest, GiganticLengthsWithoutMemory) {
    host.Start();
    const auto one = Map(1);
    const auto two = Map(2);
    memory.first = memory.last = 0;
    memory.too_large = 1 << 20;
    memory.armed = true;
    // Its header is dropped, and what follows is read as messages.
    _MESSAGE_HEADER header{0xFFFFFFF0, kUsbipChannel, {}};
    host.Receive(Bytes(header));
    ExpectAlive(1, *one);
    host.Receive(ForwardMessage(2, "x", kMaxRawSize));
    EXPECT_TRUE(host.runtime.WaitForLine(
        {4, "[usbipclient] no scratch area of 268435456 bytes, data dropped"}));
    ExpectAlive(2, *two);
    const std::string claim = KernelPdu(9, 48);
    auto command = Parse<usbip_header>(claim);
    command.u.cmd_submit.transfer_buffer_length = htobe32(kMaxRawSize - 1000);
    EXPECT_TRUE(two->Send(Bytes(command) + "x"));
    EXPECT_TRUE(host.runtime.WaitForLine(
        {4, "[CUsbipClientLinux] out of memory for a PDU of the kernel's"}));
    EXPECT_TRUE(two->WaitForEnd()) << "it cannot go on";
    ExpectAlive(1, *one);
    memory.armed = false;
    memory.too_large = SIZE_MAX;
    Drop();
}

#endif

TEST_F(FaultTest, ThreadsAndDescriptorsMayBeRefused) {
    host.Start();
    auto other = Map(1);
    ExpectAlive(1, *other);
    const long descriptors = OpenDescriptors();
    const auto limit_descriptors = [](long spare) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        if (spare >= 0) {
            std::vector<int> next;  // numbers that the next descriptors will have
            for (long i = 0; i <= spare; ++i)
                next.push_back(dup(STDIN_FILENO));
            limit.rlim_cur = static_cast<rlim_t>(next.back());
            for (const int fd : next)
                close(fd);
        }
        setrlimit(RLIMIT_NOFILE, &limit);
    };
    const struct {
        const char* what;
        std::function<void()> spoil;
        LogLine line;  // no text: none is laid down
    } cases[] = {
        {"no socket pair",
         [&] { limit_descriptors(0); },
         {4, "[CUsbipClientLinux] socketpair fail, 24"}},
        {"no descriptor for sysfs",
         [&] { limit_descriptors(2); },
         {4, "[CUsbipClientLinux]  vhci open fail"}},
        {"the kernel refuses",
         [&] { controller.RefuseAttaches(EBUSY); },
         {4, "[CUsbipClientLinux]  vhci attach fail"}},
        {"no work thread", [&] { failing_threads = 1; }, {}},
        {"no thread at all", [&] { failing_threads = 2; }, {}},
    };
    for (const auto& test : cases) {
        host.runtime.Forget();
        test.spoil();
        host.Receive(MapMessage(2) + ForwardMessage(2, UnlinkReply(1)));
        EXPECT_TRUE(host.stream->WaitUntilDrained()) << test.what;
        if (!test.line.text.empty()) {
            EXPECT_TRUE(host.runtime.WaitForLine(test.line)) << test.what;
        }
        limit_descriptors(-1);
        controller.RefuseAttaches(0);
        EXPECT_EQ(failing_threads, 0) << test.what;
        attaches = controller.Requests().size();
        ExpectAlive(1, *other);
        host.Receive(UnmapMessage(2));
        EXPECT_TRUE(host.stream->WaitUntilDrained()) << test.what;
        EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == descriptors; })) << test.what;
        ExpectAlive(2, *Map(2));
        host.Receive(UnmapMessage(2));
        EXPECT_TRUE(host.stream->WaitUntilDrained()) << test.what;
        EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == descriptors; })) << test.what;
    }
    Drop();
    other.reset();
    EXPECT_TRUE(ledger.Balanced());
}

TEST_F(FaultTest, WithoutItsSendThreadThePluginStillStops) {
    failing_threads = 1;
    host.Start();
    EXPECT_TRUE(host.stream->WaitUntilDrained());
    EXPECT_EQ(failing_threads, 0);
    auto kernel = Map(1);
    EXPECT_TRUE(kernel->Send(Unlink(1)));
    Drop();
    EXPECT_TRUE(kernel->WaitForEnd());
    kernel.reset();
    EXPECT_TRUE(ledger.Balanced());
}

// The stream of a recorded session ends at every byte. Many plug-ins at a time, since each has its
// pauses.
TEST_F(FaultTest, TheStreamMayEndAtEveryByte) {
    constexpr std::size_t kAtOnce = 60;
    const std::string session = VersionRequest(1) + MapMessage(1) +
                                ForwardMessage(1, UnlinkReply(1)) +
                                CompressedForward(1, UnlinkReply(2)) + UnmapMessage(1);
    // Within the description of the device every byte is like the others.
    std::vector<std::size_t> cuts;
    for (std::size_t at = 0; at <= session.size(); at += at > 100 && at < 800 ? 16 : 1)
        cuts.push_back(at);
    for (std::size_t i = 0; i < cuts.size(); i += kAtOnce) {
        std::vector<std::thread> hosts;
        for (std::size_t k = i; k < std::min(i + kAtOnce, cuts.size()); ++k) {
            hosts.emplace_back([&, k] {
                const CRefObj<FakeStream> stream(new FakeStream);
                auto plugin = FakeHost::Create(Module());
                plugin->InitInstance(stream.Get());
                stream->Feed(session.substr(0, cuts[k]));
                stream->End();
                plugin->Run();
                const Stopwatch watch;
                if (k % 2 == 0) plugin->ExitInstance();
                plugin = nullptr;
                EXPECT_LT(watch.Milliseconds(), kHangMilliseconds) << "cut at " << cuts[k];
                const std::string written = stream->Written();
                EXPECT_EQ(written.starts_with(Message(kUsbipVersionRsp, FromHex("03 00 00 00"))),
                          cuts[k] >= VersionRequest(1).size());
            });
        }
        for (std::thread& one : hosts)
            one.join();
        for (const auto& kernel : Attached())
            EXPECT_TRUE(kernel->WaitForEnd()) << "from cut " << cuts[i];
    }
    EXPECT_GT(attaches, 0U);
    const auto lines = host.runtime.Lines(1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), LogLine{1, "[usbipclient] device end 1"}),
              static_cast<long>(attaches));
    Drop();
    EXPECT_TRUE(ledger.Balanced());
}

// The kernel lets go after every byte that it sent, and after every byte that it read.
TEST_F(FaultTest, TheKernelMayCloseAtEveryByte) {
    host.Start();
    const std::string pdus[] = {Unlink(1), SubmitOut(2, "data", 2), SubmitIn(3, 64)};
    const std::string sent = pdus[0] + pdus[1] + pdus[2];
    const std::string reply = SubmitReply(4, 64, std::string(64, 'x'));
    const std::string replies = reply + UnlinkReply(5);
    for (std::size_t at = 0; at <= std::max(sent.size(), replies.size()); ++at) {
        auto kernel = Map(6);
        ASSERT_TRUE(kernel);
        EXPECT_TRUE(kernel->Send(sent.substr(0, at)));
        const bool reads = at % 2 == 1 && at <= replies.size();
        if (reads) {
            host.Receive(ForwardMessage(6, reply) + ForwardMessage(6, UnlinkReply(5)));
            EXPECT_EQ(kernel->Receive(at), replies.substr(0, at));
        }
        kernel->Close();
        // With bytes unread, the close may overtake what was sent.
        std::size_t whole = 0;
        std::string message = host.stream->WaitForMessage();
        for (const std::string& pdu : pdus) {
            whole += pdu.size();
            if (message == ForwardMessage(6, pdu)) {
                EXPECT_LE(whole, at);
                message = host.stream->WaitForMessage();
            } else if (!reads) {
                EXPECT_GT(whole, at) << "a PDU is lost";
            }
        }
        ASSERT_EQ(message, UnmapMessage(6)) << "closed at " << at;
        host.Receive(UnmapMessage(6));
        ASSERT_TRUE(host.stream->WaitUntilDrained());
    }
    Drop();
    EXPECT_TRUE(ledger.Balanced());
}

// Every thread but the test's own is interrupted a thousand times a second.
TEST_F(FaultTest, SignalsInterruptEverything) {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // and no SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    const auto self = static_cast<pid_t>(syscall(SYS_gettid));
    std::atomic<bool> done{false};
    std::atomic<long> signals{0};
    std::thread pest([&] {
        const auto own = static_cast<pid_t>(syscall(SYS_gettid));
        while (!done) {
            for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
                const pid_t thread = std::stoi(entry.path().filename().string());
                if (thread == self || thread == own) continue;
                if (syscall(SYS_tgkill, getpid(), thread, SIGUSR1) == 0) ++signals;
            }
            const timespec pause{0, 1'000'000};
            nanosleep(&pause, nullptr);
        }
    });
    host.Start();
    host.stream->SetReadBlock(50'000);
    host.stream->SetWriteBlock(3000);
    for (std::uint32_t round = 0; round < 5; ++round) {
        const auto kernel = Map(1);
        host.Receive(VersionRequest(round % 2 == 0 ? 1 : 0));
        host.stream->WaitForMessage();
        for (std::uint32_t i = 0; i < 40; ++i) {
            ASSERT_TRUE(kernel->Send(KernelPdu(i, 30'000)));
            host.Receive(ForwardMessage(1, PeerPdu(kPeerSeq + i, 300'000)));
        }
        for (std::uint32_t i = 0; i < 40; ++i) {
            ASSERT_TRUE(CarriedPdu(host.stream->WaitForMessage()) == KernelPdu(i, 30'000)) << i;
            ASSERT_TRUE(kernel->Receive(300'000) == PeerPdu(kPeerSeq + i, 300'000)) << i;
        }
        host.Receive(UnmapMessage(1));
        EXPECT_EQ(host.stream->WaitForMessage(), UnmapMessage(1));
        EXPECT_TRUE(kernel->WaitForEnd());
    }
    Drop();
    done = true;
    pest.join();
    EXPECT_GT(signals, 100);
    EXPECT_EQ(host.runtime.Lines(4), std::vector<LogLine>());
    EXPECT_TRUE(ledger.Balanced());
}

}  // namespace
