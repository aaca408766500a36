// Intrusive reference counting: the interface, its one implementation, and the smart pointer.
//
// Part of the host ABI: the order of virtual operations and of fields is fixed. A concrete class
// derives publicly from its interface and non-publicly from CReference, and overrides AddRef and
// Release once for both by forwarding to CReference.
//
// Threads: counts are atomic; any thread may take or drop a reference without a lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

class IReference {
  public:
    virtual ~IReference() = default;
    virtual long AddRef() = 0;   // returns the count after the increment
    virtual long Release() = 0;  // returns the count after the decrement; 0: the object is gone
};

class CReference {
  public:
    CReference(const CReference&) = delete;
    CReference& operator=(const CReference&) = delete;

    virtual long AddRef() { return ++m_nRefCount; }

    virtual long Release() {
        const std::int64_t count = --m_nRefCount;
        if (count != 0) return count;
        if (--m_nHoldCount != 0) return 0;
        delete this;
        return 0;
    }

  protected:
    CReference() = default;
    virtual ~CReference() = default;

  private:
    std::atomic<std::int64_t> m_nRefCount{0};
    std::atomic<std::int64_t> m_nHoldCount{1};
};

// Owns one reference on the object it points to; may be null.
template <typename T>
class CRefObj {
  public:
    CRefObj() = default;
    CRefObj(T* object) : m_pObject(object) {  // NOLINT(google-explicit-constructor): as results
        if (m_pObject != nullptr) m_pObject->AddRef();
    }
    CRefObj(const CRefObj& other) : CRefObj(other.m_pObject) {}
    CRefObj(CRefObj&& other) noexcept : m_pObject(std::exchange(other.m_pObject, nullptr)) {}
    ~CRefObj() {
        if (m_pObject != nullptr) m_pObject->Release();
    }

    // From a pointer or another CRefObj. The new reference is taken before the old one is dropped,
    // so that assigning an object to itself is safe.
    CRefObj& operator=(CRefObj other) noexcept {
        std::swap(m_pObject, other.m_pObject);
        return *this;
    }

    T* Get() const { return m_pObject; }
    T* operator->() const { return m_pObject; }
    T& operator*() const { return *m_pObject; }
    explicit operator bool() const { return m_pObject != nullptr; }

  private:
    T* m_pObject = nullptr;
};
