#include "base/BaseThread.h"

#include <sys/select.h>

#include <limits>

namespace {
ADD_TO_MONITORING_LIST<CBaseThread> __AddToMonitoringList__CBaseThread("CBaseThread");
}  // namespace

bool CBaseThread::Run() {
    return Run_(false);
}

bool CBaseThread::Stop() {
    return Stop(std::numeric_limits<unsigned long>::max());
}

bool CBaseThread::Stop(unsigned long timeout) {
    if (!m_bStarted) return true;
    WaitForStop(timeout);
    m_bStarted = false;
    m_hThread = 0;
    return true;
}

bool CBaseThread::Run_(bool detached) {
    if (m_bStarted) return true;
    m_bDetached = detached;
    m_bStarted = true;
    m_bStopRequested = false;
    m_bExited = false;
    if (pthread_create(&m_hThread, nullptr, ThreadFunc, this) != 0) {
        m_bStarted = false;
        m_hThread = 0;
    }
    return m_bStarted;
}

bool CBaseThread::WaitForStop(unsigned long) {
    if (!m_bStarted) return true;
    m_bStopRequested = true;
    OnStopRequest();
    Join();
    return true;
}

bool CBaseThread::WaitThreadEnd(unsigned long) {
    if (m_bStarted) Join();
    return true;
}

void CBaseThread::Join() {
    if (m_bDetached || m_hThread == 0) return;
    pthread_join(m_hThread, nullptr);
    m_hThread = 0;
}

bool CBaseThread::WaitForTimeOut(unsigned long ms) {
    if (m_bStarted) {
        timeval duration{static_cast<time_t>(ms / 1000),
                         static_cast<suseconds_t>(ms % 1000) * 1000};
        select(0, nullptr, nullptr, nullptr, &duration);
    }
    return true;
}

void CBaseThread::SetThreadName(const char* name) {
    if (name != nullptr) m_strName = name;
}

void* CBaseThread::ThreadFunc(void* self) {
    auto* thread = static_cast<CBaseThread*>(self);
    if (thread->m_bDetached) pthread_detach(pthread_self());
    if (!thread->m_strKernelName.empty()) {
        pthread_setname_np(pthread_self(), thread->m_strKernelName.c_str());
    }
    thread->OnBegin();
    while (!thread->m_bStopRequested && thread->ThreadLoop()) {
        if (thread->m_bDetached) break;
    }
    thread->m_bExited = true;
    thread->OnExit();
    return nullptr;
}
