// The heap buffer and its allocator: one object and one block of storage per buffer, no pool.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>

#include "base/Buffer.h"

class CMemBuffer : public IBuffer, protected CReference {
  public:
    CMemBuffer(IMemAlloctor* allocator, void* data, unsigned long capacity)
        : m_pAllocator(allocator), m_pData(data), m_nBufferSize(capacity) {}
    ~CMemBuffer() override {
        if (m_pAllocator) m_pAllocator->FreeBuff(this);
    }

    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }

    void* GetPointer() const override { return m_pData; }
    unsigned long GetSize() const override { return m_nSize; }
    unsigned long SetSize(unsigned long size) override {
        return m_nSize = size < m_nBufferSize ? size : m_nBufferSize;
    }
    unsigned long GetBufferSize() const override { return m_nBufferSize; }
    unsigned long GetActualSize() const override { return m_nBufferSize; }
    void* GetActualPointer() const override { return m_pData; }
    CRefObj<IMemAlloctor> GetCurAlloctor() const override { return m_pAllocator; }
    void* Realloc(unsigned long size) override {
        return m_pAllocator ? m_pAllocator->Realloc(this, size) : nullptr;
    }
    void* Reset(void* data, unsigned long size) override {
        m_nBufferSize = size;
        return std::exchange(m_pData, data);
    }

  private:
    CRefObj<IMemAlloctor> m_pAllocator;
    void* m_pData;
    std::uint64_t m_nSize = 0;
    std::uint64_t m_nBufferSize;
};

template <typename T>
class CMemAlloctorEx : public IMemAlloctor, protected CReference {
  public:
    explicit CMemAlloctorEx(
        unsigned long max_buffer_size = std::numeric_limits<unsigned long>::max())
        : m_nMaxBufferSize(max_buffer_size) {}

    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }

    CRefObj<IBuffer> GetFreeBuffer(unsigned long size) override { return CreateBuffer(size); }

    bool FreeBuff(IBuffer* buffer) override {
        if (buffer == nullptr) return false;
        std::free(buffer->GetActualPointer());
        return true;
    }

    unsigned long GetMaxBufferSize() override { return m_nMaxBufferSize; }

    void* Realloc(IBuffer* buffer, unsigned long size) override {
        if (buffer == nullptr) return nullptr;
        void* data = std::realloc(buffer->GetActualPointer(), size);
        if (data == nullptr && size != 0) return nullptr;
        buffer->Reset(data, size);
        return data;
    }

    virtual CRefObj<IBuffer> CreateBuffer(unsigned long size) {
        if (GetMaxBufferSize() < size) size = GetMaxBufferSize();
        void* data = nullptr;
        if (size != 0) {
            data = std::malloc(size);
            if (data == nullptr) data = std::malloc(size);
            if (data == nullptr) return {};
        }
        T* buffer = new (std::nothrow) T(this, data, size);
        if (buffer == nullptr) std::free(data);
        return buffer;
    }

  private:
    std::uint64_t m_nMaxBufferSize;
};
