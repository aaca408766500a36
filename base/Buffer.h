// Data buffers, the unit in which all data moves, and the allocator interface they come from.
//
// Ownership: buffers are shared by reference; whoever drops the last reference frees the storage.
// A buffer keeps its allocator alive. Threads: contents, size and user word are not locked; a
// buffer is filled by one thread and then handed over to exactly one other.
#pragma once

#include "xj-client-usbip/Reference.h"

class IMemAlloctor;

class IBuffer : public IReference {
  public:
    virtual void* GetPointer() const = 0;                   // first data byte; null when capacity 0
    virtual unsigned long GetSize() const = 0;              // bytes in use
    virtual unsigned long SetSize(unsigned long size) = 0;  // clamped to the capacity; returns it
    virtual unsigned long GetBufferSize() const = 0;        // capacity
    // The underlying allocation, for the allocator.
    virtual unsigned long GetActualSize() const = 0;
    virtual void* GetActualPointer() const = 0;
    virtual CRefObj<IMemAlloctor> GetCurAlloctor() const = 0;
    // Changes the capacity, keeping data and size. Null: nothing has changed.
    virtual void* Realloc(unsigned long size) = 0;
    // Replaces storage and capacity, frees nothing; returns the storage replaced.
    virtual void* Reset(void* data, unsigned long size) = 0;
    virtual void* SetUserData(void* data) { return std::exchange(m_pUserData, data); }
    virtual void* GetUserData() const { return m_pUserData; }

  private:
    void* m_pUserData = nullptr;  // belongs to whoever uses the buffer
};

class IMemAlloctor : public IReference {
  public:
    // A buffer of size 0 with room for `size` bytes (or the maximum, if that is less). Empty when
    // there is no memory.
    virtual CRefObj<IBuffer> GetFreeBuffer(unsigned long size) = 0;
    virtual bool FreeBuff(IBuffer* buffer) = 0;  // called by the buffer's destructor only
    virtual unsigned long GetMaxBufferSize() = 0;
    virtual void* Realloc(IBuffer* buffer, unsigned long size) = 0;  // called by the buffer only
};
