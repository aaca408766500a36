// The module's door to the host's runtime: a process-wide object that forwards every call while a
// runtime is set.
#pragma once

#include <atomic>

#include "base/Lock.h"
#include "xj-client-usbip/HostAbi.h"

// Holder of one process-wide T, built on first use and destroyed when the library is unloaded.
template <typename T>
class CSingleton_T {
  public:
    static T* Instance() EXCLUDES(m_instanceMutex) {
        T* instance = m_pInstance.load(std::memory_order_acquire);
        if (instance != nullptr) return instance;
        CLockGuard guard(m_instanceMutex);
        static T temp;
        m_pInstance.store(&temp, std::memory_order_release);
        return &temp;
    }

  private:
    static inline std::atomic<T*> m_pInstance{nullptr};  // own synchronisation
    static inline CMutexLock m_instanceMutex;  // serialises the first construction; innermost
};

// Threads: any. The lock is held while the host's operation runs, so the host is never entered
// from two threads at once and its pointer cannot be cleared in the middle of a call. The lock is
// recursive: a host operation may log back into the module.
//
// Lock order: since whoever logs takes this lock and the host may take long, no other lock of the
// module is held while one logs. m_runLock of a device client is the exception, and comes first.
class CXJModRuntime : public IXJModRuntime, public CSingleton_T<CXJModRuntime> {
  public:
    // Borrowed: the host keeps `runtime` alive until it is replaced or cleared with null.
    void SetRuntime(IXJModRuntime* runtime);

    void Log(int level, const char* text) override;
    bool GetConfig(bool a, const char* b, const char* c, IXJModData** d, const char* e) override;
    bool SaveConfig(bool a, const char* b, const char* c, const char* d) override;
    void* GetEnv(const char* name) override;

  private:
    CMutexLock m_lock;  // also held during every call through m_pRuntime
    IXJModRuntime* m_pRuntime GUARDED_BY(m_lock) = nullptr;
};
