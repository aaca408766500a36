// An allocator that keeps the storage of buffers that have gone, for those that come.
//
// The C library gives much of it back to the system, and then every message costs a page fault for
// each 4 KiB. What is kept was in use at one time, is bounded, and goes when the owner says so. The
// settings of the process's heap stay as the host has them.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "base/Lock.h"
#include "base/MemAlloctor.h"

#if defined(__clang__)
#define XJ_ADDRESS_SANITIZER __has_feature(address_sanitizer)
#elif defined(__SANITIZE_ADDRESS__)
#define XJ_ADDRESS_SANITIZER 1
#endif

class CKeepingAlloctor : public CMemAlloctorEx<CMemBuffer> {
  public:
    ~CKeepingAlloctor() override { GiveBack(); }

    CRefObj<IBuffer> CreateBuffer(unsigned long size) override {
        void* data = Take(size);
        if (data == nullptr && size != 0) return {};
        auto* buffer = new (std::nothrow) CMemBuffer(this, data, size);
        if (buffer == nullptr) Keep(data, size);
        return buffer;
    }
    bool FreeBuff(IBuffer* buffer) override {
        if (buffer == nullptr) return false;
        Keep(buffer->GetActualPointer(), buffer->GetActualSize());
        return true;
    }
    void* Realloc(IBuffer* buffer, unsigned long size) override {
        if (buffer == nullptr) return nullptr;
        void* data = buffer->GetActualPointer();
        const unsigned long before = buffer->GetActualSize();
        if (Room(size) != Room(before)) {
            data = Take(size);
            if (data == nullptr && size != 0) return nullptr;
            const unsigned long kept = std::min(size, before);
            if (kept != 0) std::memcpy(data, buffer->GetActualPointer(), kept);
            Keep(buffer->GetActualPointer(), before);
        }
        buffer->Reset(data, size);
        return data;
    }

    // All that is kept, to the C library.
    void GiveBack() EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        for (Spare*& first : m_spares)
            while (first != nullptr)
                std::free(std::exchange(first, first->next));
        m_nKept = 0;
    }

  private:
    struct Spare {  // at the start of what is kept
        Spare* next;
    };

    // Storage comes in powers of two, from a few PDUs' headers to the kernel's largest requests;
    // what is larger is not kept. With an address sanitizer nothing is, so that it sees every end.
    static constexpr unsigned long kLeast = 64;
#if XJ_ADDRESS_SANITIZER
    static constexpr unsigned long kLargest = 0;
#else
    static constexpr unsigned long kLargest = 2UL << 20;
#endif
    static constexpr unsigned long kMostKept = 32UL << 20;

    static unsigned long Room(unsigned long size) {
        return size == 0 || size > kLargest ? size : std::bit_ceil(std::max(size, kLeast));
    }
    Spare*& Spares(unsigned long room) REQUIRES(m_lock) {
        return m_spares[static_cast<std::size_t>(std::countr_zero(room / kLeast))];
    }

    void* Take(unsigned long size) EXCLUDES(m_lock) {
        const unsigned long room = Room(size);
        if (room == 0) return nullptr;
        if (room <= kLargest) {
            CLockGuard guard(m_lock);
            Spare*& first = Spares(room);
            if (first != nullptr) {
                m_nKept -= room;
                return std::exchange(first, first->next);
            }
        }
        return std::malloc(room);
    }
    void Keep(void* data, unsigned long size) EXCLUDES(m_lock) {
        const unsigned long room = Room(size);
        if (data != nullptr && room <= kLargest) {
            CLockGuard guard(m_lock);
            if (room <= kMostKept - m_nKept) {
                Spare*& first = Spares(room);
                first = new (data) Spare{first};
                m_nKept += room;
                return;
            }
        }
        std::free(data);
    }

    CMutexLock m_lock;                                     // innermost
    std::array<Spare*, 16> m_spares GUARDED_BY(m_lock){};  // by size, the smallest first
    unsigned long m_nKept GUARDED_BY(m_lock) = 0;          // bytes
};
