// Faults by the book, in the library as it ships: whatever fails, the host and the other devices
// live on, nothing hangs, and everything is given back.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "fakes/Ledger.h"
#include "fakes/Rig.h"
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

xjmod_entrypoint* module() {
    void* const entry = dlsym(dlopen(XJ_MODULE, RTLD_NOW), "xjmod_get_entrypoint");
    return reinterpret_cast<xjmod_get_entrypoint_fn>(entry)();
}

// A plug-in that runs, with device 1, which must not notice what befalls the others.
class FaultTest : public ::testing::Test, public Rig {
  protected:
    FaultTest() : Rig(128, module()) {
        getrlimit(RLIMIT_NOFILE, &descriptors);
        host.Start();
        one = Map(1);
        EXPECT_TRUE(Works(1, *one));
        ledger.emplace();
    }
    // With this fault and these messages to device 2, whatever comes of them, this line is
    // in the log, if any. Device 2 can come back, and nothing is lost.
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
        controller.refusal = 0;
        last = 0;
        too_large = SIZE_MAX;
        if (returned()) host.RunAgain();
        Handle(UnmapMessage(2));
        controller.Attached();
        EXPECT_TRUE(Works(1, *one) && Works(2, *Map(2)));
        host.Receive(UnmapMessage(2));
        EXPECT_LT(watch.Milliseconds(), kHangMilliseconds);
        EXPECT_TRUE(ledger->Balanced());
    }

    std::unique_ptr<KernelEnd> one;
    std::optional<Ledger> ledger;
    rlimit descriptors{};
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
    const auto fault = [&] {
        // The last one is refused, with a log line, by the thread that brings it.
        host.Receive(VersionRequest(1) + map_two + CompressedForward(2, PeerPdu(kPeerSeq, 5000)) +
                     ForwardMessage(2, Unlink(1) + std::string(40'000, 'x')));
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
    for (const auto& [threads, name] : {std::pair{0b01U, "write"}, std::pair{0b10U, "work"}})
        Survive(
            name, [threads = threads] { failing_threads = threads; }, map_two,
            "[CUsbipClientLinux] thread usbipclientlinux-" + std::string(name) + " cannot be made");
    const auto descriptor = [&] {
        const rlimit none{1, descriptors.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    };
    Survive("descriptor", descriptor, map_two, "[CUsbipClientLinux] socketpair fail, 24");
    const auto port = [&] { controller.refusal = EBUSY; };
    Survive("port", port, map_two, "[CUsbipClientLinux]  vhci attach fail");
    if (kSanitized) return;  // allocations are the sanitizer's
    const auto memory = [&] { too_large = 1 << 20; };
    Survive("memory for a rawsize", memory, ForwardMessage(1, "x", 1 << 20),
            "[usbipclient] no scratch area of 1048576 bytes, data dropped");
    // Only the header is dropped then: what follows is read as messages.
    Survive("memory for an outer length", memory,
            Bytes(_MESSAGE_HEADER{~0U, kUsbipChannel, {}}) + Message(kUsbipVersionReq, "abc"),
            "[usbipclient] invalid usbip_version_req package size 19");
}

TEST_F(FaultTest, WithoutASendThreadNothingIsAttached) {
    host.EndRun();
    host.plugin->ExitInstance();
    host.runtime.Forget();
    failing_threads = 0b10;  // the first one is the host's own, for Run
    host.RunAgain();
    host.Receive(MapMessage(2));
    EXPECT_TRUE(host.runtime.WaitForLine({1, "[usbipclient] Run return"}));
    EXPECT_EQ(host.runtime.Lines(4),
              (std::vector{LogLine{4, "[usbipclient] thread usbipclient-send cannot be made"}}));
    EXPECT_TRUE(controller.Attached().empty());
}
