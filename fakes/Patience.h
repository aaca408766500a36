// How long tests wait, what they cannot go on without, and what they measure about their own
// process.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <mutex>

// The bound of every wait for something that has to happen. Only a failing test ever waits so
// long, so it is sized for the slowest setting: emulated, sanitized, on a busy machine.
inline constexpr std::chrono::seconds kPatience{20};

// Sanitizers keep books about memory, which costs memory where the program itself uses none.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// Looks again and again until `condition` holds; false when patience has run out.
template <typename Condition>
bool Eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        const timespec pause{0, 1'000'000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

// Standard error as the process found it: fuzz/run closes it to the product's own lines.
inline const int kReport = dup(STDERR_FILENO);

// What must hold for anything else to mean something. Ends the process, which a fuzzer takes for a
// finding and CTest for a failure.
inline void Require(bool holds, const char* what) {
    if (holds) return;
    dprintf(kReport, "does not hold: %s\n", what);
    std::abort();
}

template <typename Operation>
auto Under(std::mutex& mutex, Operation operation) {
    const std::lock_guard lock(mutex);
    return operation();
}
class Stopwatch {
  public:
    long Milliseconds() const {
        const auto elapsed = std::chrono::steady_clock::now() - start_;
        return std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
    }

  private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Of the whole process.
inline long CpuMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

// But for those with this descriptor flag.
inline long OpenDescriptors(int without = 0) {
    return std::ranges::count_if(
        std::filesystem::directory_iterator("/proc/self/fd"), [&](const auto& entry) {
            return (fcntl(std::stoi(entry.path().filename()), F_GETFD) & without) == 0;
        });
}

inline long Threads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}
