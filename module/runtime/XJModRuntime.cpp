#include "module/runtime/XJModRuntime.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "module/runtime/XJModLog.h"

void CXJModRuntime::SetRuntime(IXJModRuntime* runtime) {
    CLockGuard guard(m_lock);
    m_pRuntime = runtime;
}

void CXJModRuntime::Log(int level, const char* text) {
    CLockGuard guard(m_lock);
    if (m_pRuntime != nullptr) m_pRuntime->Log(level, text);
}

bool CXJModRuntime::GetConfig(bool a, const char* b, const char* c, IXJModData** d, const char* e) {
    CLockGuard guard(m_lock);
    return m_pRuntime != nullptr && m_pRuntime->GetConfig(a, b, c, d, e);
}

bool CXJModRuntime::SaveConfig(bool a, const char* b, const char* c, const char* d) {
    CLockGuard guard(m_lock);
    return m_pRuntime != nullptr && m_pRuntime->SaveConfig(a, b, c, d);
}

void* CXJModRuntime::GetEnv(const char* name) {
    CLockGuard guard(m_lock);
    return m_pRuntime != nullptr ? m_pRuntime->GetEnv(name) : nullptr;
}

void XJModLog(int level, const char* fmt, ...) {
    constexpr std::size_t kLineSize = 4096;  // with the NUL
    struct Free {
        void operator()(char* line) const { std::free(line); }
    };
    const std::unique_ptr<char, Free> line(static_cast<char*>(std::calloc(1, kLineSize)));
    if (!line) return;
    std::va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(line.get(), kLineSize, fmt, arguments);
    va_end(arguments);
    CXJModRuntime::Instance()->Log(level, line.get());
}
