// Both ends of a relay: the kernel's sockets and the remote side's stream. Every byte that arrives
// is compared with what it has to be.
#pragma once

#include <atomic>
#include <deque>

#include "bench/relay/Pdus.h"

class Traffic {
  public:
    // Borrows the sockets.
    Traffic(const Cell& cell, int stream, const std::vector<int>& kernels);

    // So many PDUs, or URBs where PDUs are answered, divisible by the devices. Returns when all has
    // arrived.
    void Move(std::uint32_t count);
    // The median of the last Move, in seconds, where one URB is under way; else negative.
    double RoundTrip();

  private:
    void Kernel(std::uint32_t count);
    void Remote(std::uint32_t count);
    void KernelSends(std::uint32_t device, std::uint32_t count);
    // Where nothing is answered, the two threads tell each other how far they are.
    void AwaitRoom(std::uint32_t sent);
    void Arrived(std::uint32_t count);
    // How many whole replies have come for it.
    std::uint32_t KernelReceives(std::uint32_t device);

    const Cell cell_;
    const int stream_;
    const Pdus commands_, forwarded_commands_, replies_, forwarded_replies_;

    std::atomic<std::uint32_t> arrived_{0};  // PDUs that nobody answers
    // By device. The kernel thread's:
    struct Port {
        int socket;
        Reader reader{socket};
        std::uint32_t sent = 0;
        std::uint32_t received = 0;
    };
    std::deque<Port> ports_;
    std::vector<double> round_trips_;
    // The remote thread's:
    Reader remote_reader_;
    std::vector<std::uint32_t> remote_seen_;
};
