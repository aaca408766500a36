// Reference counts, buffers and the allocator. That locks exclude and are recursive shows where
// threads and the host log.
#include "xj-client-usbip/Reference.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "base/MemAlloctor.h"
#include "fakes/Patience.h"

namespace {

struct Probe : public IReference, protected CReference {
    ~Probe() override { ++destroyed; }
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    static inline int destroyed = 0;
};

TEST(Reference, EachPointerOwnsOneAndTheLastDestroys) {
    {
        CRefObj<Probe> first(new Probe);
        const CRefObj<Probe>& alias = first;
        first = alias;
        first = first.Get();
        EXPECT_EQ(Probe::destroyed, 0) << "assigned to itself";
        CRefObj<Probe> second = first;
        const auto copy = [&first] {
            for (int i = 0; i < 200'000; ++i)
                static_cast<void>(CRefObj<Probe>(first));
        };
        std::jthread other(copy);
        copy(), other.join();
        EXPECT_EQ(first->AddRef(), 3) << "two pointers and this call";
        EXPECT_EQ(first->Release(), 2);
        second = nullptr;
        CRefObj<Probe> moved = std::move(first);
        EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): an empty pointer is promised
        moved = new Probe;
        EXPECT_EQ(Probe::destroyed, 1) << "assignment drops the object that was held";
    }
    EXPECT_EQ(Probe::destroyed, 2);
}

TEST(Buffer, CapacityAndSizeAreClamped) {
    const CRefObj<IMemAlloctor> allocator(new CMemAlloctorEx<CMemBuffer>(99));
    const CRefObj<IBuffer> buffer = allocator->GetFreeBuffer(100);
    EXPECT_EQ(buffer->GetBufferSize(), 99U);
    EXPECT_EQ(buffer->SetSize(98), 98U);
    EXPECT_EQ(buffer->SetSize(~0UL), 99U);
    EXPECT_EQ(buffer->GetSize(), 99U);
    EXPECT_EQ(allocator->GetFreeBuffer(0)->GetPointer(), nullptr);
}

TEST(Buffer, ReallocKeepsBytesAndSizeOrChangesNothing) {
    const CRefObj<IMemAlloctor> allocator(new CMemAlloctorEx<CMemBuffer>);
    CRefObj<IBuffer> buffer = allocator->GetFreeBuffer(8);
    std::memcpy(buffer->GetPointer(), "12345678", 8);
    buffer->SetSize(8);
    const void* storage = buffer->Realloc(1 << 20);
    if (!kSanitized) {                                   // which would end the process
        volatile unsigned long impossible = ~0UL - 100;  // the compiler must not see it
        EXPECT_EQ(buffer->Realloc(impossible), nullptr);
        EXPECT_FALSE(allocator->GetFreeBuffer(impossible));
    }
    EXPECT_EQ(buffer->GetPointer(), storage);
    EXPECT_EQ(buffer->GetBufferSize(), 1UL << 20);
    EXPECT_EQ(buffer->GetSize(), 8U);
    EXPECT_EQ(std::memcmp(storage, "12345678", 8), 0);
    EXPECT_EQ(buffer->GetCurAlloctor().Get(), allocator.Get());
    EXPECT_EQ(allocator->AddRef(), 3) << "ours, the buffer's and this call's";
    char own[4];
    buffer = new CMemBuffer(nullptr, own, sizeof own);
    EXPECT_EQ(allocator->Release(), 1);
    EXPECT_EQ(buffer->Realloc(100), nullptr) << "without an allocator";
}

}  // namespace
