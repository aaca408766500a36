// The figures of docs/limits.md, measured again: what the module costs its host, and what a hostile
// peer or kernel can make it cost.
//   limits [CYCLES]   CYCLES of map and unmap to look for growth; 10,000 if not said
// Ends with 1 when a bound is broken. Few times have one, since on a busy machine most of a time is
// waiting for a processor.
#include <malloc.h>

#include <climits>
#include <cstdio>
#include <fstream>
#include <functional>

#include "fakes/Rig.h"
#include "fakes/Traffic.h"

namespace {

constexpr long kLongestExit = 90;  // ms, of the fastest: below any pause or time-out
constexpr std::uint32_t kDevices = 16;
constexpr std::uint32_t kMapped = 256;  // the most that are mapped at a time

bool broken = false;

void Row(const char* what, long value, const char* unit, long bound = LONG_MAX) {
    std::printf("%-60s %8ld %-5s", what, value, unit);
    if (bound != LONG_MAX) std::printf(" at most %ld", bound);
    std::printf(value > bound ? " BROKEN\n" : "\n");
    std::fflush(stdout);
    broken = broken || value > bound;
}

// Of the memory that the process has had resident since the peak was reset.
long PeakKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (word != "VmHWM:" && status >> word) {
    }
    long kilobytes = 0;
    Require(static_cast<bool>(status >> kilobytes), "the system tells the peak");
    return kilobytes;
}

// A plug-in that runs, on ports that are read at once.
struct Bench : Rig {
    explicit Bench(int ports = 2 * kDevices) : Rig(ports) {
        controller.status_pause = {};
        host.Start();
        Handle("");
    }
    void RoundTrip(std::uint32_t devid, KernelEnd& kernel) {
        Require(Works(devid, kernel), "a PDU each way arrives");
    }
    long Exit() {
        host.EndRun();
        const Stopwatch watch;
        host.plugin->ExitInstance();
        return watch.Milliseconds();
    }
};

// Growth of the peak by what `input` does to an attached device.
void Memory(const char* what, long bound, const std::function<void(FakeHost&, KernelEnd&)>& input) {
    Bench rig;
    const auto kernel = rig.Map(1);
    rig.RoundTrip(1, *kernel);
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";  // resets the peak
    const long before = PeakKilobytes();
    input(rig.host, *kernel);
    Require(rig.host.stream->WaitUntilDrained(), "the input is read");
    kernel->StopSending();
    Require(kernel->WaitForEnd(), "the kernel's bytes are read");
    Row(what, PeakKilobytes() - before, "KiB", bound);
}

std::string PeerPduOfZeros(std::uint32_t size) {
    return SubmitReply(kPeerSeq, size, std::string(size, '\0'));
}

void MemoryUnderHostileInput() {
    constexpr std::uint32_t kCount = 20'000;
    Memory("outer length of 4 GiB, 1,000 bytes sent", 1024, [](FakeHost& host, KernelEnd&) {
        host.Receive(Bytes(_MESSAGE_HEADER{0xFFFFFFF0, kUsbipChannel, {}}) +
                     std::string(1000, 'x'));
    });
    Memory("rawsize of 256 MiB for a PDU of 48 bytes", 1024, [](FakeHost& host, KernelEnd&) {
        host.Receive(ForwardMessage(1, Deflated(UnlinkReply(1)), kMaxRawSize));
    });
    const std::string bomb = CompressedForward(1, std::string(kMaxRawSize, '\0'));
    Memory("zlib stream of 256 MiB", (kMaxRawSize >> 10) + 4096,
           [&](FakeHost& host, KernelEnd&) { host.Receive(bomb); });
    Memory("PDU of 256 MiB claimed by the kernel, 1 byte sent", (kUsbipMaxPdu >> 10) + 1024,
           [](FakeHost&, KernelEnd& kernel) {
               auto command = PduHeader(USBIP_CMD_SUBMIT, 9);
               command.u.cmd_submit.transfer_buffer_length = htobe32(kUsbipMaxPdu - sizeof command);
               Require(kernel.Send(Bytes(command) + "x"), "the kernel can send");
           });
    const std::string small = Deflated(UnlinkReply(1));
    for (const bool claimed : {false, true}) {
        Memory(claimed ? "the same, each in a zlib stream with a rawsize of 64 KiB"
                       : "20,000 PDUs of 48 bytes for a kernel that does not read",
               kCount / 2, [&](FakeHost& host, KernelEnd&) {
                   for (std::uint32_t i = 0; i < kCount; ++i) {
                       host.Receive(claimed ? ForwardMessage(1, small, 1 << 16)
                                            : ForwardMessage(1, UnlinkReply(i)));
                       if (i % 100 == 0) Require(host.stream->WaitUntilDrained(), "they are read");
                   }
               });
    }
    const std::string forward = CompressedForward(1, PeerPduOfZeros(1 << 20));
    Memory("2,000 PDUs of 1 MiB in a stream of 2 MiB, unread", (64 + 6) << 10,
           [&](FakeHost& host, KernelEnd&) {
               for (int i = 0; i < 2000; ++i) {
                   host.Receive(forward);
                   Require(host.stream->WaitUntilDrained(), "they are read");
               }
           });
    Memory("100 PDUs of 1 MiB for a device that has ended", 4096,
           [&](FakeHost& host, KernelEnd& kernel) {
               kernel.StopSending();
               const LogLine end{1, "[CUsbipClientLinux] 1 write thread prepare quit"};
               Require(host.runtime.WaitForLine(end), "the device ends");
               for (int i = 0; i < 100; ++i)
                   host.Receive(forward);
           });
    Memory("20,000 OUT transfers that are never answered", kCount / 2,
           [](FakeHost&, KernelEnd& kernel) {
               for (std::uint32_t i = 0; i < kCount; ++i)
                   Require(kernel.Send(SubmitOut(i, "")), "the kernel can send");
           });
}

// What messages took is kept for the next ones, a part of it, and not for ever.
void MemoryKept() {
    const auto in_use = [] {
        const auto heap = mallinfo2();
        return static_cast<long>(heap.uordblks + heap.hblkhd);
    };
    Bench rig;
    const auto kernel = rig.Map(1);
    rig.RoundTrip(1, *kernel);
    const std::string pdu = PeerPduOfZeros(1 << 20), forward = CompressedForward(1, pdu);
    const long before = in_use();
    for (int i = 0; i < 60; ++i)
        rig.host.Receive(forward);
    for (int i = 0; i < 60; ++i)
        Require(kernel->Receive(pdu.size()).size() == pdu.size(), "they are written");
    Row("kept of 60 PDUs of 1 MiB when they have been written", (in_use() - before) >> 10, "KiB",
        36 << 10);
    Eventually([&] { return in_use() - before < 1 << 20; });
    Row("  soon afterwards", (in_use() - before) >> 10, "KiB", 1024);
}

// A remote side that maps and maps: half of the devices at super speed, so that there are ports.
void TooManyMaps(const char* threads_row, const char* descriptors_row, bool driver) {
    Bench rig(kMapped);
    if (!driver) rig.controller.RemoveDevice("vhci_hcd.0");
    const long threads = Threads();
    const long descriptors = OpenDescriptors();
    for (std::uint32_t devid = 0; devid < kMapped + 100; ++devid)
        rig.host.Receive(MapMessage(devid, DeviceInfo(devid % 2 == 0 ? 3 : 5)));
    for (std::uint32_t devid = kMapped; devid < kMapped + 100; ++devid)
        Require(rig.NextMessage() == UnmapMessage(devid), "those that are too many are refused");
    const long attached = driver ? kMapped : 0;
    std::list<std::unique_ptr<KernelEnd>> kernels;
    while (std::ssize(kernels) < attached)
        kernels.push_back(rig.controller.WaitForAttach());
    const LogLine failed{4, "[CUsbipClientLinux]  vhci open fail"};
    Require(Eventually([&] { return rig.host.runtime.Count(failed) == kMapped - attached; }),
            "each device is attached, or was told that it is not");
    // A thread that has ended may be seen for a moment longer.
    Eventually([&] { return Threads() - threads <= 2 * attached; });
    Row(threads_row, Threads() - threads, "", 2 * attached);
    // The kernel's own are in this process, too.
    Row(descriptors_row, OpenDescriptors() - descriptors - attached, "", attached);
}

// `devices` that are busy: no kernel reads what is queued for it, and one does not stop sending.
long Exit(std::uint32_t devices) {
    Bench rig;
    std::vector<std::unique_ptr<KernelEnd>> kernels;
    for (std::uint32_t devid = 0; devid < devices; ++devid) {
        kernels.push_back(rig.Map(devid));
        rig.RoundTrip(devid, *kernels.back());
    }
    for (std::uint32_t devid = 0; devid < devices; ++devid)
        rig.host.Receive(ForwardMessage(devid, PeerPdu(kPeerSeq, 1 << 20)));
    Require(rig.host.stream->WaitUntilDrained(), "the forwards are read");
    std::jthread sender([&] {
        while (devices != 0 && kernels[0]->Send(Unlink(1))) {
        }
    });
    return rig.Exit();
}

// From the call of Run to that of the stream's Read, in milliseconds.
long FirstRead() {
    Rig rig;
    const Stopwatch watch;
    rig.host.Start();
    while (rig.host.stream->ReadRequests().empty())
        std::this_thread::yield();
    return watch.Milliseconds();
}

long FastestOfTen(const std::function<long()>& milliseconds) {
    long fastest = LONG_MAX;
    for (int i = 0; i < 10; ++i)
        fastest = std::min(fastest, milliseconds());
    return fastest;
}

void DevicesAndEnds() {
    TooManyMaps("threads after 356 maps, 256 of them taken", "  descriptors", true);
    TooManyMaps("threads after 356 maps without the driver", "  descriptors", false);
    Row("Run until its first Read, fastest of ten", FastestOfTen(FirstRead), "ms", kLongestExit);
    Row("ExitInstance without a device, fastest of ten", FastestOfTen([] { return Exit(0); }), "ms",
        kLongestExit);
    Row("ExitInstance with 16 busy devices, fastest of ten",
        FastestOfTen([] { return Exit(kDevices); }), "ms", kLongestExit);
}

// Round trips of one device, first alone, then while another one is mapped and, with 1 MiB waiting
// that its kernel does not read, unmapped.
void Stalls(int unmaps) {
    Bench rig;
    const auto kernel = rig.Map(1);
    long stop = 0;
    std::atomic<bool> done{unmaps == 0};
    std::thread other([&] {
        for (int i = 1; i <= unmaps; ++i) {
            const auto end = rig.Map(2);
            rig.host.Receive(ForwardMessage(2, PeerPdu(kPeerSeq, 1 << 20)));
            const auto begun = [&] {
                return rig.host.runtime.Count({1, "start forward data loop"});
            };
            Require(Eventually([&] { return begun() == i + 1; }), "the other device works");
            const Stopwatch watch;
            rig.host.Receive(UnmapMessage(2));
            Require(end->WaitForEnd(), "the unmap ends the other device");
            stop = std::max(stop, watch.Milliseconds());
        }
        done = true;
    });
    long slowest = 0;
    for (std::uint32_t i = 0; i < 500 || !done; ++i) {
        const Stopwatch watch;
        rig.RoundTrip(1, *kernel);
        slowest = std::max(slowest, watch.Milliseconds());
    }
    other.join();
    if (unmaps == 0) return Row("slowest round trip of a device, alone", slowest, "ms");
    Row("slowest round trip of a device, another being unmapped", slowest, "ms");
    Row("slowest unmap of that other, 1 MiB waiting", stop, "ms");
}

long HeapBytes() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>(info.uordblks + info.hblkhd);
}

// In ten parts: what the fakes keep of every cycle goes with each. The first is not compared: what
// is allocated once and the heap's own caches come with it.
void Growth(unsigned long cycles) {
    long heap = 0;
    long slowest = 0;
    const long threads = Threads();
    const long descriptors = OpenDescriptors();
    for (int part = 0; part < 10; ++part) {
        if (part == 1) heap = HeapBytes();
        Bench rig;
        for (std::uint32_t i = 0; i < cycles / 10; ++i) {
            const auto kernel = rig.Map(1);
            rig.RoundTrip(1, *kernel);
            const Stopwatch watch;
            rig.host.Receive(UnmapMessage(1));
            Require(kernel->WaitForEnd(), "the unmap ends the device");
            slowest = std::max(slowest, watch.Milliseconds());
        }
    }
    std::printf("after %lu cycles of map, a PDU each way, and unmap:\n", cycles);
    Row("  heap in use, more than after a tenth of them", HeapBytes() - heap, "bytes", 16 << 10);
    Row("  descriptors more", OpenDescriptors() - descriptors, "", 0);
    Row("  threads more", Threads() - threads, "", 0);
    Row("  udev handles more", FakeController::live_udev_objects, "", 0);
    Row("  slowest unmap", slowest, "ms");
}

}  // namespace

int main(int argc, char** argv) {
    mallopt(M_ARENA_MAX, 1);  // of which mallinfo2 tells
    MemoryUnderHostileInput();
    MemoryKept();
    DevicesAndEnds();
    Stalls(0);
    Stalls(200);
    Growth(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 10'000);
    return broken ? 1 : 0;
}
