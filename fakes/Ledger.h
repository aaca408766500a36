// What has to be given back: descriptors, threads and the handles of the fake libudev.
#pragma once

#include <array>
#include <thread>

#include "fakes/FakeController.h"
#include "fakes/Patience.h"

class Ledger {
  public:
    // A thread that was joined may be seen for a moment longer, hence the patience.
    bool Balanced() const {
        if (Eventually([this] { return Held() == held_; })) return true;
        const Counts now = Held();
        dprintf(kReport, "descriptors %ld -> %ld, threads %ld -> %ld, udev handles %ld -> %ld\n",
                held_[0], now[0], held_[1], now[1], held_[2], now[2]);
        return false;
    }

  private:
    using Counts = std::array<long, 3>;

    static Counts Held() {
        return {OpenDescriptors(), Threads(), FakeController::live_udev_objects};
    }
    // A sanitizer adds a thread of its own to the first one.
    static Counts Settled() {
        static const bool settled = [] {
            std::thread([] {}).join();
            Counts held{};
            return Eventually([&] { return std::exchange(held, Held()) == held; });
        }();
        Require(settled, "nothing comes and goes");
        return Held();
    }

    const Counts held_ = Settled();
};
