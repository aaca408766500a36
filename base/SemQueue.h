// First-in first-out queue from any number of producer threads to a consumer thread. Two
// semaphores carry the waiting, an open flag lets the owner shut the queue and open it again.
//
// Only an element that finds the queue empty wakes the consumer, which looks before it waits:
// waking it costs a system call, for each element that comes before it runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <deque>
#include <utility>

#include "base/Lock.h"
#include "base/Semaphore.h"

template <typename T>
class sem_queue {
  public:
    static constexpr unsigned int kCapacity = 0x3FFFFFFF;

    sem_queue() = default;
    ~sem_queue() { close(); }
    sem_queue(const sem_queue&) = delete;
    sem_queue& operator=(const sem_queue&) = delete;

    // Makes a closed queue usable again, empty. Does nothing on an open one.
    void open() EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        if (m_bOpen) return;
        start_empty();
        m_bOpen = true;
    }

    // Drops what is queued, without closing the queue in between.
    void clear() EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        start_empty();
    }

    // One pop that waits, or the next one that comes, returns with nothing.
    void wake() { m_semItems.Post(); }

    // Appends a copy of `element`, waiting for a free place. A closed queue takes nothing.
    void push(const T& element) EXCLUDES(m_lock) {
        if (!m_bOpen || !m_semFree.Wait()) return;
        bool first = false;
        {
            CLockGuard guard(m_lock);
            if (!m_bOpen) {
                m_semFree.Post();
                return;
            }
            first = m_nCount == 0;
            m_list.push_back(element);
            ++m_nCount;
        }
        if (first) m_semItems.Post();
    }

    // Takes the front element, waiting at most `timeout_ms` for one. False: nothing was taken,
    // which may be before the time is over.
    bool pop(T& element, unsigned long timeout_ms) EXCLUDES(m_lock) {
        if (take(element)) return true;
        return m_bOpen && m_semItems.WaitFor(timeout_ms) && take(element);
    }

    // Shuts the queue, wakes waiters and drops what is queued. Takes 100 ms, in which threads
    // inside push and pop come out; closing a closed queue returns at once. The semaphores live
    // on, since a thread may still be waiting on one.
    void close() EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        if (!m_bOpen) return;
        m_bOpen = false;
        m_semItems.Post();
        const timespec pause{0, 100'000'000};
        nanosleep(&pause, nullptr);
        drop_all();
    }

  private:
    bool take(T& element) EXCLUDES(m_lock) {
        {
            CLockGuard guard(m_lock);
            if (m_nCount == 0) return false;
            element = std::move(m_list.front());
            m_list.pop_front();
            if (--m_nCount == 0) m_semItems.TryWait();  // the wake-up of what this took
        }
        m_semFree.Post();
        return true;
    }

    void start_empty() REQUIRES(m_lock) {
        drop_all();
        while (m_semItems.TryWait()) {
        }
    }

    // Every place that an element held is given back, which also wakes waiting producers.
    void drop_all() REQUIRES(m_lock) {
        for (; m_nCount > 0; --m_nCount)
            m_semFree.Post();
        m_list.clear();
    }

    CMutexLock m_lock;  // innermost: nothing is locked and nobody called while it is held
    std::uint64_t m_nCount GUARDED_BY(m_lock) = 0;  // elements in m_list
    std::deque<T> m_list GUARDED_BY(m_lock);        // oldest first

    // Their own synchronisation.
    CSemaphore m_semFree{kCapacity};
    CSemaphore m_semItems{0};
    std::atomic<bool> m_bOpen{false};  // changed under m_lock; also read without, as a first test
};

template <typename T>
class CBufferQueue_T : public sem_queue<T> {
  public:
    CBufferQueue_T() { this->open(); }
};
