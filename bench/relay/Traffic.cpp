#include "bench/relay/Traffic.h"

#include <poll.h>

#include <chrono>
#include <thread>

namespace {

// Under way where nothing is answered: what keeps a relay busy, and what the module lets wait.
constexpr std::uint32_t kMostUnderWay = 1024;
constexpr std::uint32_t kMostPayload = 16 << 20;

}  // namespace

Traffic::Traffic(const Cell& cell, int stream, const std::vector<int>& kernels)
    : cell_(cell),
      stream_(stream),
      commands_(cell, true, false),
      forwarded_commands_(cell, true, true),
      replies_(cell, false, false),
      forwarded_replies_(cell, false, true),
      remote_reader_(stream),
      remote_seen_(kernels.size()) {
    for (const int socket : kernels)
        ports_.push_back({socket});
}

void Traffic::Move(std::uint32_t count) {
    std::thread remote([&] { Remote(count); });
    Kernel(count);
    remote.join();
}

void Traffic::Kernel(std::uint32_t count) {
    if (cell_.flow == Flow::kToRemote) return KernelSends(0, count);
    std::vector<std::uint32_t> unsent(ports_.size());
    std::vector<pollfd> polled;
    for (std::uint32_t device = 0; device < ports_.size(); ++device) {
        polled.push_back({ports_[device].socket, POLLIN, 0});
        if (!cell_.Answered()) continue;
        const std::uint32_t all = count / cell_.devices;
        const std::uint32_t first = std::min(all, cell_.window / cell_.devices);
        KernelSends(device, first);
        unsent[device] = all - first;
    }
    round_trips_.clear();
    auto sent = std::chrono::steady_clock::now();
    while (count > 0) {
        if (polled.size() > 1) poll(polled.data(), polled.size(), -1);
        for (std::uint32_t device = 0; device < ports_.size(); ++device) {
            if (polled.size() > 1 && polled[device].revents == 0) continue;
            const std::uint32_t got = KernelReceives(device);
            const std::uint32_t next = std::min(got, unsent[device]);
            if (cell_.window == 1 && got != 0) {
                const auto now = std::chrono::steady_clock::now();
                round_trips_.push_back(std::chrono::duration<double>(now - sent).count());
                sent = now;
            }
            KernelSends(device, next);
            unsent[device] -= next;
            count -= got;
        }
    }
}

double Traffic::RoundTrip() {
    if (round_trips_.empty()) return -1;
    const auto middle = round_trips_.begin() + static_cast<long>(round_trips_.size() / 2);
    std::nth_element(round_trips_.begin(), middle, round_trips_.end());
    return *middle;
}

void Traffic::KernelSends(std::uint32_t device, std::uint32_t count) {
    Port& port = ports_[device];
    for (; count > 0; --count) {
        if (!cell_.Answered()) AwaitRoom(port.sent);
        commands_.Send(port.socket, device, port.sent++);
    }
}

std::uint32_t Traffic::KernelReceives(std::uint32_t device) {
    Port& port = ports_[device];
    const std::size_t size = replies_.Size();
    Require(port.reader.Fill(size), "the kernel's end brings replies");
    std::uint32_t got = 0;
    for (; port.reader.Bytes().size() >= size; ++got, port.reader.Take(size))
        Require(replies_.Is(port.reader.Bytes().substr(0, size), device, port.received++),
                "a reply arrives as it was sent");
    if (!cell_.Answered()) Arrived(got);
    return got;
}

void Traffic::AwaitRoom(std::uint32_t sent) {
    const std::uint32_t most = std::min(kMostUnderWay, kMostPayload / cell_.size);
    for (std::uint32_t seen = arrived_; sent - seen >= most; seen = arrived_)
        arrived_.wait(seen);
}

void Traffic::Arrived(std::uint32_t count) {
    arrived_ += count;
    arrived_.notify_one();
}

void Traffic::Remote(std::uint32_t count) {
    if (cell_.flow == Flow::kToKernel) {
        for (; count > 0; --count) {
            AwaitRoom(remote_seen_[0]);
            forwarded_replies_.Send(stream_, 0, remote_seen_[0]++);
        }
        return;
    }
    const std::size_t size = forwarded_commands_.Size();
    while (count > 0) {
        Require(remote_reader_.Fill(size), "the stream brings commands");
        while (remote_reader_.Bytes().size() >= size) {
            const std::string_view message = remote_reader_.Bytes().substr(0, size);
            const std::uint32_t device = Parse<usbip_forward>(message).devid;
            Require(device < remote_seen_.size(), "a command is of a device");
            const std::uint32_t index = remote_seen_[device]++;
            Require(forwarded_commands_.Is(message, device, index),
                    "a command arrives as it was sent");
            remote_reader_.Take(size);
            --count;
            if (cell_.Answered())
                forwarded_replies_.Send(stream_, device, index);
            else
                Arrived(1);
        }
    }
}
