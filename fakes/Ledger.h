// What a test must give back: descriptors, threads and the handles of the fake libudev.
#pragma once

#include <gtest/gtest.h>

#include <thread>

#include "fakes/FakeController.h"
#include "fakes/Patience.h"

class Ledger {
  public:
    // A thread that was joined may be seen for a moment longer, hence the patience.
    ::testing::AssertionResult Balanced() const {
        if (Eventually([this] {
                return OpenDescriptors() == descriptors_ && Threads() == threads_ &&
                       FakeController::LiveUdevObjects() == handles_;
            })) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure()
               << "descriptors " << descriptors_ << " -> " << OpenDescriptors() << ", threads "
               << threads_ << " -> " << Threads() << ", udev handles " << handles_ << " -> "
               << FakeController::LiveUdevObjects();
    }

  private:
    // A sanitizer adds a thread of its own to the first one.
    static long SettledThreads() {
        static const bool started = [] { return std::thread([] {}).join(), true; }();
        long threads = 0;
        Eventually([&] { return started && std::exchange(threads, Threads()) == threads; });
        return threads;
    }

    const long descriptors_ = OpenDescriptors();
    const long threads_ = SettledThreads();
    const int handles_ = FakeController::LiveUdevObjects();
};
