// Reference counts, buffers, the allocator and the lock.
#include "base/Reference.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "base/Lock.h"
#include "base/MemAlloctor.h"
#include "support/Patience.h"

namespace {

class Probe : public IReference, protected CReference {
  public:
    explicit Probe(int& destroyed) : destroyed_(destroyed) {}
    ~Probe() override { ++destroyed_; }
    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }

  private:
    int& destroyed_;
};

TEST(Reference, LastReleaseDestroysOnce) {
    int destroyed = 0;
    auto* probe = new Probe(destroyed);
    EXPECT_EQ(probe->AddRef(), 1);
    EXPECT_EQ(probe->AddRef(), 2);
    EXPECT_EQ(probe->Release(), 1);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(probe->Release(), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(Reference, SmartPointerOwnsExactlyOne) {
    int destroyed = 0;
    {
        CRefObj<Probe> first(new Probe(destroyed));
        CRefObj<Probe> second = first;
        const CRefObj<Probe>& alias = first;
        first = alias;
        first = first.Get();
        EXPECT_EQ(first->AddRef(), 3) << "two pointers and this call";
        first->Release();
        second = nullptr;
        CRefObj<Probe> moved = std::move(first);
        EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): an empty pointer is promised
        EXPECT_EQ(destroyed, 0);
        moved = new Probe(destroyed);
        EXPECT_EQ(destroyed, 1) << "assignment drops the object that was held";
    }
    EXPECT_EQ(destroyed, 2);
}

TEST(Reference, CountsFromManyThreads) {
    int destroyed = 0;
    CRefObj<Probe> probe(new Probe(destroyed));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([probe] {
            for (int n = 0; n < 10'000; ++n)
                const CRefObj<Probe> copy = probe;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    threads.clear();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(probe->AddRef(), 2);
    probe->Release();
}

class BufferTest : public testing::Test {
  protected:
    static CRefObj<IMemAlloctor> Allocator(unsigned long max = ~0UL) {
        return new CMemAlloctorEx<CMemBuffer>(max);
    }
    CRefObj<IMemAlloctor> allocator_ = Allocator();
};

TEST_F(BufferTest, SizeIsClampedToCapacity) {
    const struct {
        unsigned long capacity, asked, stored;
    } cases[] = {{10, 0, 0}, {10, 10, 10}, {10, 11, 10}, {10, ~0UL, 10}, {0, 5, 0}};
    for (const auto& c : cases) {
        const CRefObj<IBuffer> buffer = allocator_->GetFreeBuffer(c.capacity);
        EXPECT_EQ(buffer->GetSize(), 0U);
        EXPECT_EQ(buffer->SetSize(c.asked), c.stored) << "of " << c.capacity;
        EXPECT_EQ(buffer->GetSize(), c.stored);
        EXPECT_EQ(buffer->GetBufferSize(), c.capacity);
        EXPECT_EQ(buffer->GetActualSize(), c.capacity);
        EXPECT_EQ(buffer->GetPointer() == nullptr, c.capacity == 0);
        EXPECT_EQ(buffer->GetActualPointer(), buffer->GetPointer());
    }
}

TEST_F(BufferTest, MaximumLowersTheCapacityButNotRealloc) {
    const CRefObj<IMemAlloctor> small = Allocator(100);
    const CRefObj<IBuffer> buffer = small->GetFreeBuffer(1000);
    EXPECT_EQ(buffer->GetBufferSize(), 100U);
    EXPECT_NE(buffer->Realloc(200), nullptr);
    EXPECT_EQ(buffer->GetBufferSize(), 200U);
}

TEST_F(BufferTest, ReallocKeepsBytesAndSize) {
    const CRefObj<IBuffer> buffer = allocator_->GetFreeBuffer(8);
    std::memcpy(buffer->GetPointer(), "12345678", 8);
    buffer->SetSize(8);
    void* const storage = buffer->Realloc(1 << 20);
    EXPECT_EQ(buffer->GetPointer(), storage);
    EXPECT_EQ(buffer->GetBufferSize(), 1UL << 20);
    EXPECT_EQ(buffer->GetSize(), 8U);
    EXPECT_EQ(std::memcmp(buffer->GetPointer(), "12345678", 8), 0);
}

// Sizes are read at run time, so that the compiler does not refuse them itself.
TEST_F(BufferTest, ImpossibleSizesFailCleanly) {
    if (kSanitized) GTEST_SKIP() << "the sanitizer ends the process for such a size";
    volatile unsigned long impossible = ~0UL - 100;
    EXPECT_FALSE(allocator_->GetFreeBuffer(impossible));
    const CRefObj<IBuffer> buffer = allocator_->GetFreeBuffer(8);
    void* const storage = buffer->GetPointer();
    EXPECT_EQ(buffer->Realloc(impossible), nullptr);
    EXPECT_EQ(buffer->GetPointer(), storage);
    EXPECT_EQ(buffer->GetBufferSize(), 8U);
}

TEST_F(BufferTest, ResetReplacesStorageOnly) {
    const CRefObj<IBuffer> buffer = allocator_->GetFreeBuffer(8);
    buffer->SetSize(5);
    char other[3];
    void* const storage = buffer->Reset(other, sizeof other);
    EXPECT_EQ(buffer->GetPointer(), other);
    EXPECT_EQ(buffer->GetBufferSize(), 3U);
    EXPECT_EQ(buffer->GetSize(), 5U);
    EXPECT_EQ(buffer->Reset(storage, 8), other);
}

TEST_F(BufferTest, UserWordBelongsToTheUser) {
    const CRefObj<IBuffer> buffer = allocator_->GetFreeBuffer(1);
    int word = 0;
    EXPECT_EQ(buffer->GetUserData(), nullptr);
    EXPECT_EQ(buffer->SetUserData(&word), nullptr);
    EXPECT_EQ(buffer->SetUserData(nullptr), &word);
}

TEST_F(BufferTest, WithoutAllocatorNothingIsResized) {
    char storage[4];
    const CRefObj<IBuffer> buffer(new CMemBuffer(nullptr, storage, sizeof storage));
    EXPECT_EQ(buffer->Realloc(100), nullptr);
    EXPECT_EQ(buffer->GetBufferSize(), 4U);
    EXPECT_FALSE(buffer->GetCurAlloctor());
}

TEST_F(BufferTest, BuffersKeepTheirAllocatorAlive) {
    class Counted : public CMemAlloctorEx<CMemBuffer> {
      public:
        explicit Counted(int& destroyed) : destroyed_(destroyed) {}
        ~Counted() override { ++destroyed_; }

      private:
        int& destroyed_;
    };
    int destroyed = 0;
    CRefObj<IMemAlloctor> owner(new Counted(destroyed));
    CRefObj<IBuffer> buffer = owner->GetFreeBuffer(10);
    EXPECT_EQ(buffer->GetCurAlloctor().Get(), owner.Get());
    owner = nullptr;
    EXPECT_EQ(destroyed, 0);
    buffer = nullptr;
    EXPECT_EQ(destroyed, 1);
}

TEST_F(BufferTest, FreeBuffAndReallocRefuseNull) {
    EXPECT_FALSE(allocator_->FreeBuff(nullptr));
    EXPECT_EQ(allocator_->Realloc(nullptr, 8), nullptr);
    const CRefObj<IBuffer> empty = allocator_->GetFreeBuffer(0);
    EXPECT_TRUE(allocator_->FreeBuff(empty.Get()));
}

TEST(Lock, IsRecursiveAndExcludesOthers) {
    CMutexLock lock;
    int counter = 0;
    const auto count = [&] {
        for (int i = 0; i < 10'000; ++i) {
            EXPECT_EQ(lock.Lock(), 1);
            EXPECT_EQ(lock.Lock(), 1);
            ++counter;
            EXPECT_EQ(lock.Unlock(), 1);
            EXPECT_EQ(lock.Unlock(), 1);
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(counter, 20'000);
}

}  // namespace
