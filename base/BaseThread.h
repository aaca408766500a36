// One POSIX thread that calls ThreadLoop again and again until it returns false or the owner asks
// it to stop. Stopping is cooperative: ask, then join. ThreadLoop must return within a bounded
// time and must itself wait when there is nothing to do.
//
// Threads: the owner calls Run, Stop and the waits, from one thread at a time; OnBegin, ThreadLoop
// and OnExit run on the worker. The destructor does not stop the thread: the owner calls Stop
// first, and with a detached thread keeps the object alive until the thread has ended.
#pragma once

#include <pthread.h>

#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "base/ObjectMonitor.h"

class CBaseThread {
  public:
    CBaseThread() = default;
    virtual ~CBaseThread() = default;
    CBaseThread(const CBaseThread&) = delete;
    CBaseThread& operator=(const CBaseThread&) = delete;

    virtual bool Run();   // false: the thread could not be created
    virtual bool Stop();  // asks and joins; true
    virtual bool Stop(unsigned long timeout);
    virtual bool Run_(bool detached);  // a detached thread runs ThreadLoop at most once
    virtual bool ThreadLoop() = 0;
    virtual bool WaitForStop(unsigned long timeout);  // the time-out is not used
    virtual void OnExit() {}
    virtual void OnBegin() {}
    virtual void OnStopRequest() {}  // on the owner's thread, before it joins: end a wait here

    bool WaitForTimeOut(unsigned long ms);      // sleeps, if started; not ended by a stop request
    bool WaitThreadEnd(unsigned long timeout);  // joins without asking; the time-out is not used
    bool IsRunning() const { return m_bStarted && !m_bExited; }
    void SetThreadName(const char* name);  // stays with the object
    // What the system shows (`top -H`): at most 15 bytes, set by the thread itself as it starts. A
    // name that the system refuses is ignored.
    void SetKernelName(std::string name) { m_strKernelName = std::move(name); }

  private:
    static void* ThreadFunc(void* self);
    void Join();

    OBJECT_MONITOR<CBaseThread> m_monitor;

    // The owner's.
    pthread_t m_hThread = 0;  // 0 when there is nothing to join
    bool m_bStarted = false;
    std::string m_strName;

    // Set by the owner, constant while the worker runs.
    bool m_bDetached = false;
    std::string m_strKernelName;

    // Their own synchronisation.
    std::atomic<bool> m_bStopRequested{false};  // set by the owner, read by the worker
    std::atomic<bool> m_bExited{false};         // set by the worker
};

// The loop as a function object, so that an owner needs no class of its own. The function captures
// its owner without a reference: the owner stops and deletes the thread before it goes away.
class CUsbipClientThread : public CBaseThread {
  public:
    bool ThreadLoop() override { return m_loop && m_loop(); }
    void OnStopRequest() override {
        if (m_wake) m_wake();
    }
    std::function<bool()> m_loop;
    std::function<void()> m_wake;  // ends a wait of m_loop's
};

class CUsbipClientLinuxThread : public CBaseThread {
  public:
    bool ThreadLoop() override { return m_loop && m_loop(); }
    std::function<bool()> m_loop;
};
