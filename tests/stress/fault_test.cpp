// Faults by the book, in the library as it ships: whatever fails, the host and the other devices
// live on, nothing hangs, and everything is given back.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <csignal>

#include "fakes/FakeHost.h"
#include "fakes/Ledger.h"
#include "fakes/Traffic.h"

namespace {

constexpr long kHangMilliseconds = kSanitized ? 10'000 : 2000;

std::atomic<unsigned> failing_threads{0};  // bit n: the nth thread creation from now on fails

// Of the module's and zlib's allocations those from number `first` to `last` fail, and all of
// `too_large` bytes. A log line's succeed, and do not count.
std::atomic<long> allocations, first, last;
std::atomic<std::size_t> too_large{SIZE_MAX};
constexpr std::size_t kLogLine = 4096;

// What the fakes do on the module's threads never fails.
[[maybe_unused]] bool fails(std::size_t size, const void* caller) {
    Dl_info by{};
    if ((last == 0 && size < too_large) || size == kLogLine || dladdr(caller, &by) == 0)
        return false;
    if (!std::strstr(by.dli_fname, XJ_MODULE) && !std::strstr(by.dli_fname, "libz.so"))
        return false;
    return size >= too_large || (++allocations >= first && allocations <= last);
}

// A plug-in that runs, with device 1, which must not notice what befalls the others.
class FaultTest : public ::testing::Test {
  protected:
    void SetUp() override {
        getrlimit(RLIMIT_NOFILE, &descriptors);
        host.Start();
        one = Map(1);
        ExpectAlive(1, *one);
        ledger.emplace();
    }
    void TearDown() override {
        controller.Attached();
        EXPECT_TRUE(ledger->Balanced());
    }
    std::unique_ptr<KernelEnd> Map(std::uint32_t devid) {
        host.Receive(MapMessage(devid));
        return controller.WaitForAttach();
    }
    // The device works, both ways.
    void ExpectAlive(std::uint32_t devid, KernelEnd& kernel) {
        const std::string pdu = Unlink(++seqnum);
        EXPECT_TRUE(kernel.Send(pdu));
        std::string message;
        while ((message = host.stream->WaitForMessage()) != ForwardMessage(devid, pdu))
            ASSERT_NE(message, "") << "device " << devid << " no longer sends";
        host.Receive(ForwardMessage(devid, UnlinkReply(seqnum)));
        EXPECT_EQ(kernel.Receive(48), UnlinkReply(seqnum)) << "device " << devid;
    }
    // With this fault and these messages to device 2, whatever comes of them, this line is
    // in the log, if any. Device 2 can come back.
    void Survive(const std::string& what, auto fault, const std::string& messages,
                 const std::string& line) {
        SCOPED_TRACE(what);
        const Stopwatch watch;
        host.runtime.Forget();
        allocations = 0;
        fault();
        host.Receive(messages);
        const auto returned = [&] { return host.runtime.Count({1, "[usbipclient] Run return"}); };
        EXPECT_TRUE(Eventually([&] { return host.stream->Drained() || returned(); }));
        EXPECT_TRUE(line.empty() || host.runtime.WaitForLine({4, line}));
        EXPECT_EQ(failing_threads, 0U);
        setrlimit(RLIMIT_NOFILE, &descriptors);
        controller.RefuseAttaches(0);
        last = 0;
        too_large = SIZE_MAX;
        if (returned()) host.RunAgain();
        host.Receive(UnmapMessage(2));
        EXPECT_TRUE(host.stream->WaitUntilDrained());
        controller.Attached();
        ExpectAlive(1, *one);
        ExpectAlive(2, *Map(2));
        host.Receive(UnmapMessage(2));
        EXPECT_LT(watch.Milliseconds(), kHangMilliseconds);
        EXPECT_TRUE(ledger->Balanced());
    }
    // What another plug-in writes when its stream ends behind these bytes.
    std::string Written(const std::string& bytes) {
        const CRefObj<FakeStream> stream(new FakeStream);
        auto plugin = FakeHost::Create(module);
        plugin->InitInstance(stream.Get());
        stream->Feed(bytes);
        stream->End();
        plugin->Run();
        const Stopwatch watch;
        plugin = nullptr;
        EXPECT_LT(watch.Milliseconds(), kHangMilliseconds);
        return stream->Written();
    }

    FakeController controller{1, 128};
    void* const entry = dlsym(dlopen(XJ_MODULE, RTLD_NOW), "xjmod_get_entrypoint");
    xjmod_entrypoint* const module = reinterpret_cast<xjmod_get_entrypoint_fn>(entry)();
    FakeHost host{module};
    std::unique_ptr<KernelEnd> one;
    std::optional<Ledger> ledger;
    rlimit descriptors{};
    std::uint32_t seqnum = 0;
    const std::string map_two = MapMessage(2) + ForwardMessage(2, UnlinkReply(1));
};

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) {
    static void* const real = dlsym(RTLD_NEXT, "pthread_create");
    // Like the C library's, a failure leaves an id behind that is no thread's.
    if ((failing_threads.exchange(failing_threads >> 1) & 1) != 0) return *thread = ~0UL, EAGAIN;
    return reinterpret_cast<decltype(&pthread_create)>(real)(thread, attributes, start, argument);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#define FAILING(function, parameters, size, arguments)                                           \
    extern "C" void* __libc_##function parameters;                                               \
    extern "C" void* function parameters {                                                       \
        return fails(size, __builtin_return_address(0)) ? nullptr : __libc_##function arguments; \
    }
FAILING(malloc, (std::size_t size), size, (size))
FAILING(calloc, (std::size_t count, std::size_t size), size* count, (count, size))
FAILING(realloc, (void* data, std::size_t size), size, (data, size))

void* operator new(std::size_t size) {
    if (fails(size, __builtin_return_address(0))) throw std::bad_alloc();
    return __libc_malloc(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return fails(size, __builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

#endif

// Two in a row, since buffers are asked for twice, or all from the nth on, until one session of
// everything passes.
TEST_F(FaultTest, EachAllocationMayFail) {
    if (kSanitized) GTEST_SKIP() << "allocations are the sanitizer's";
    const std::string session =
        VersionRequest(1) + map_two + CompressedForward(2, PeerPdu(kPeerSeq, 5000));
    const auto fault = [&] {
        host.Receive(session);
        std::list<std::unique_ptr<KernelEnd>> kernels;
        EXPECT_TRUE(Eventually([&] {
            kernels = controller.Attached();
            return !kernels.empty() || allocations >= first;
        }));
        for (const auto& kernel : kernels) {
            kernel->Send(KernelPdu(1, 100) + KernelPdu(2, 50'000));
            kernel->StopSending();
            EXPECT_TRUE(kernel->WaitForEnd());
        }
    };
    for (const long step : {1, 5}) {
        for (first = 1; allocations >= first - step && !HasFailure(); first += step) {
            last = step == 1 ? first + 1 : LONG_MAX;
            Survive("allocation " + std::to_string(first), fault, MapMessage(2), "");
        }
        EXPECT_GT(first, 40) << "the module's allocations are seen";
    }
}

TEST_F(FaultTest, WhatTheSystemGivesMayBeRefused) {
    for (const unsigned threads : {0b01U, 0b10U, 0b11U})
        Survive(
            "threads", [=] { failing_threads = threads; }, map_two, "");
    failing_threads = 1;
    EXPECT_EQ(Written(VersionRequest(0) + map_two).size(), 20U) << "without a send thread";
    const auto descriptor = [&] {
        const rlimit none{1, descriptors.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    };
    Survive("descriptor", descriptor, map_two, "[CUsbipClientLinux] socketpair fail, 24");
    const auto port = [&] { controller.RefuseAttaches(EBUSY); };
    Survive("port", port, map_two, "[CUsbipClientLinux]  vhci attach fail");
    if (kSanitized) return;  // allocations are the sanitizer's
    const auto memory = [&] { too_large = 1 << 20; };
    Survive("memory for a rawsize", memory, ForwardMessage(1, "x", kMaxRawSize),
            "[usbipclient] no scratch area of 268435456 bytes, data dropped");
    // Only the header is dropped then: what follows is read as messages.
    Survive("memory for an outer length", memory,
            Bytes(_MESSAGE_HEADER{~0U, kUsbipChannel, {}}) + map_two, "");
}

// The stream of a recorded session ends at every byte (of every sixteenth within the description of
// the device). Many plug-ins at a time, since each has its pauses.
TEST_F(FaultTest, TheStreamMayEndAtEveryByte) {
    const std::string session =
        VersionRequest(1) + map_two + CompressedForward(2, UnlinkReply(2)) + UnmapMessage(2);
    for (std::size_t cut = 0; cut <= session.size(); controller.Attached()) {
        std::vector<std::jthread> hosts;
        for (; hosts.size() < 60 && cut <= session.size(); cut += cut > 100 && cut < 800 ? 16 : 1)
            hosts.emplace_back([this, bytes = session.substr(0, cut)] {
                EXPECT_EQ(Written(bytes).empty(), bytes.size() < VersionRequest(1).size());
            });
    }
    EXPECT_GT(host.runtime.Count({1, "[usbipclient] device end 2"}), 0) << "some were attached";
}

// The kernel lets go after every byte that it sent or read.
TEST_F(FaultTest, TheKernelMayCloseAtEveryByte) {
    const std::string pdu = SubmitOut(2, "data", 2);
    const std::string reply = SubmitReply(4, 200, std::string(200, 'x'));
    for (const bool reads : {false, true})
        for (std::size_t at = 0; at <= 2 * pdu.size(); ++at) {
            const auto kernel = Map(2);
            if (reads) host.Receive(ForwardMessage(2, reply));
            ASSERT_EQ(kernel->Receive(reads ? at : 0), reply.substr(0, reads ? at : 0));
            ASSERT_TRUE(kernel->Send(reads ? "" : (pdu + pdu).substr(0, at)));
            kernel->Close();
            for (std::size_t whole = reads ? 0 : at / pdu.size(); whole > 0; --whole)
                ASSERT_EQ(host.stream->WaitForMessage(), ForwardMessage(2, pdu)) << at;
            ASSERT_EQ(host.stream->WaitForMessage(), UnmapMessage(2)) << at;
            host.Receive(UnmapMessage(2));
        }
}

TEST_F(FaultTest, SignalsInterruptEverything) {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // and no SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    const std::jthread pest([](const std::stop_token& stop) {
        for (; !stop.stop_requested(); usleep(1000))
            for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
                tgkill(getpid(), std::stoi(task.path().filename()), SIGUSR1);
    });
    host.stream->SetWriteBlock(3000);
    for (std::uint32_t i = 0; i < 200; ++i) {
        ASSERT_TRUE(one->Send(KernelPdu(i, 30'000)));
        host.Receive(ForwardMessage(1, PeerPdu(kPeerSeq + i, 300'000)));
        ASSERT_TRUE(CarriedPdu(host.stream->WaitForMessage()) == KernelPdu(i, 30'000)) << i;
        ASSERT_TRUE(one->Receive(300'000) == PeerPdu(kPeerSeq + i, 300'000)) << i;
    }
    EXPECT_NE(Written(VersionRequest(1) + map_two), "");
    EXPECT_EQ(host.runtime.Lines(4), std::vector<LogLine>());
}
