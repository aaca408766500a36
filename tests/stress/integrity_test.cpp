// No byte lost: sixteen devices, both directions at once, small and huge PDUs, and everybody reads
// and writes in pieces.
//
// XJ_STRESS_PDUS: about how many, both directions together.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <bit>
#include <random>

#include "fakes/Rig.h"
#include "fakes/Traffic.h"

namespace {

constexpr std::uint32_t kDevices = 16;
// PDUs in each direction until all have arrived, which bounds what is on its way.
constexpr std::uint32_t kRound = kDevices * 50;
constexpr std::size_t kBlock = 20'000;  // bytes that the stream takes or gives at a time, at most

// All as often as not, else some.
std::size_t Part(std::size_t size) {
    thread_local std::minstd_rand random{std::random_device{}()};
    return random() % 2 == 0 ? size : 1 + random() % size;
}

// Most PDUs are commands and small transfers, one in 2,048 has up to 4 MiB.
std::size_t SizeOf(std::uint32_t number) {
    std::minstd_rand random(number * 2654435761U);
    const int rarity = std::countr_zero(random() | 1U << 11);
    const std::size_t largest = std::size_t{64} << rarity * 3 / 2;
    return sizeof(usbip_header) + random() % (largest + 1 - sizeof(usbip_header));
}

}  // namespace

// In place of the C library's: the module's sockets and the kernel's ends move parts at a time.
extern "C" ssize_t send(int socket, const void* data, std::size_t size, int flags) {
    return sendto(socket, data, Part(size), flags, nullptr, 0);
}
extern "C" ssize_t recv(int socket, void* buffer, std::size_t size, int flags) {
    return recvfrom(socket, buffer, Part(size), flags, nullptr, nullptr);
}

// PDU number n, in either direction, belongs to device n % kDevices.
TEST(Integrity, EveryPduArrivesOnceWholeAndInOrder) {
    const auto pdus = FromEnvironment("XJ_STRESS_PDUS", kSanitized ? 20'000 : 50'000);
    Rig rig(2 * kDevices);
    FakeHost& host = rig.host;
    host.Start();
    std::vector<std::unique_ptr<KernelEnd>> kernels;
    std::vector<std::uint32_t> taken(kDevices);  // PDUs of each device that the peer has got
    for (std::uint32_t devid = 0; devid < kDevices; ++devid)
        kernels.push_back(rig.Map(devid));
    std::atomic<bool> wrong{false};
    std::uint32_t first = 0;
    const Stopwatch watch;
    for (; first < pdus / 2 && !wrong; first += kRound) {
        const bool compress = first / kRound % 2 == 0;
        host.Receive(VersionRequest(compress ? kVersionFlagCompress : 0));
        rig.NextMessage();
        std::vector<std::jthread> threads;
        const auto each = [&](std::uint32_t from, std::uint32_t step, auto operation) {
            threads.emplace_back([&, from, step, operation] {
                for (auto n = first + from; n < first + kRound && !wrong; n += step)
                    if (!operation(n) && !wrong.exchange(true))
                        ADD_FAILURE() << "PDU " << n << ", device " << n % kDevices << ": differs";
            });
        };
        for (std::uint32_t devid = 0; devid < kDevices; ++devid) {
            KernelEnd& kernel = *kernels[devid];
            each(devid, kDevices, [&](auto n) { return kernel.Send(KernelPdu(n, SizeOf(n))); });
            each(devid, kDevices, [&](auto n) {
                return kernel.Receive(SizeOf(n)) == PeerPdu(kPeerSeq + n, SizeOf(n));
            });
        }
        each(0, 1, [&](auto n) {
            const std::string pdu = PeerPdu(kPeerSeq + n, SizeOf(n));
            const std::uint32_t devid = n % kDevices;
            host.stream->SetReadBlock(Part(kBlock));
            host.Receive(n % 3 == 0 ? CompressedForward(devid, pdu) : ForwardMessage(devid, pdu));
            return true;
        });
        each(0, 1, [&](auto) {
            host.stream->SetWriteBlock(Part(kBlock));
            const std::string message = rig.NextMessage();
            const auto forward = Parse<usbip_forward>(message);
            const auto n = taken[forward.devid % kDevices]++ * kDevices + forward.devid;
            const std::string pdu = KernelPdu(n, SizeOf(n));
            return CarriedPdu(message) == pdu &&
                   (forward.rawsize != 0) == (compress && pdu.size() > kCompressThreshold);
        });
    }
    std::printf("%u PDUs in %ld ms\n", 2 * first, watch.Milliseconds());
    for (std::uint32_t devid = 0; devid < kDevices && !wrong; ++devid) {
        host.Receive(UnmapMessage(devid));
        EXPECT_EQ(rig.NextMessage(), UnmapMessage(devid)) << "and nothing before it";
        EXPECT_EQ(kernels[devid]->Receive(1), "") << "device " << devid;
    }
}
