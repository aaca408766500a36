// A process-private POSIX semaphore. It is destroyed only with its owner, so no thread can be left
// waiting on a dead one.
#pragma once

#include <semaphore.h>

#include <cerrno>
#include <ctime>

class CSemaphore {
  public:
    explicit CSemaphore(unsigned int count) { sem_init(&m_sem, 0, count); }
    ~CSemaphore() { sem_destroy(&m_sem); }
    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;

    void Post() { sem_post(&m_sem); }
    bool TryWait() { return sem_trywait(&m_sem) == 0; }

    // True when a count was taken; false only for an error that waiting again cannot mend.
    bool Wait() {
        while (sem_wait(&m_sem) != 0) {
            if (errno != EINTR && errno != EAGAIN) return false;
        }
        return true;
    }

    // Waits at most `timeout_ms`. The deadline is fixed once, so that signals cannot prolong the
    // wait, and on a clock that nobody sets. False after a time-out.
    bool WaitFor(unsigned long timeout_ms) {
        const timespec deadline = deadline_after(timeout_ms);
        while (sem_clockwait(&m_sem, CLOCK_MONOTONIC, &deadline) != 0) {
            if (errno != EINTR && errno != EAGAIN) return false;
        }
        return true;
    }

  private:
    static timespec deadline_after(unsigned long timeout_ms) {
        constexpr long kNanosecondsPerSecond = 1'000'000'000;
        timespec deadline{};
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += static_cast<time_t>(timeout_ms / 1000);
        deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1'000'000;
        if (deadline.tv_nsec >= kNanosecondsPerSecond) {
            deadline.tv_nsec -= kNanosecondsPerSecond;
            ++deadline.tv_sec;
        }
        return deadline;
    }

    sem_t m_sem;
};
