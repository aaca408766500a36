// The lock of every shared structure: a recursive mutex behind a small interface.
#pragma once

#include <pthread.h>

#include "base/ThreadSafety.h"

class CAPABILITY("lock") ILockItem {
  public:
    virtual int Lock() ACQUIRE() = 0;    // always 1
    virtual int Unlock() RELEASE() = 0;  // always 1
    virtual ~ILockItem() = default;
};

// A thread that holds the lock may lock it again, and unlocks it as often as it locked it.
class CAPABILITY("lock") CMutexLock : public ILockItem {
  public:
    CMutexLock() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&m_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~CMutexLock() override { pthread_mutex_destroy(&m_mutex); }
    CMutexLock(const CMutexLock&) = delete;
    CMutexLock& operator=(const CMutexLock&) = delete;

    int Lock() ACQUIRE() override {
        pthread_mutex_lock(&m_mutex);
        return 1;
    }
    int Unlock() RELEASE() override {
        pthread_mutex_unlock(&m_mutex);
        return 1;
    }

  private:
    pthread_mutex_t m_mutex;
};

// Holds a lock for a scope.
class SCOPED_CAPABILITY CLockGuard {
  public:
    explicit CLockGuard(ILockItem& lock) ACQUIRE(lock) : m_lock(lock) { m_lock.Lock(); }
    ~CLockGuard() RELEASE() { m_lock.Unlock(); }
    CLockGuard(const CLockGuard&) = delete;
    CLockGuard& operator=(const CLockGuard&) = delete;

  private:
    ILockItem& m_lock;
};
