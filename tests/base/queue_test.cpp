// The semaphore queue: order, time-outs, close and re-open.
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "base/SemQueue.h"
#include "fakes/Patience.h"

namespace {

// Elements are shared pointers: use_count() tells how many references the queue holds.
using Element = std::shared_ptr<int>;
using Queue = CBufferQueue_T<Element>;

Element Pop(Queue& queue, unsigned long timeout_ms) {
    Element element;
    queue.pop(element, timeout_ms);
    return element;
}

TEST(Queue, KeepsOrderAndWaitsForAnElementOrItsTimeOut) {
    Queue queue;
    for (int i = 0; i < 5; ++i)
        queue.push(std::make_shared<int>(i));
    queue.open();  // is open, and keeps what it holds
    for (int i = 0; i < 5; ++i) {
        const Element element = Pop(queue, 1000);
        ASSERT_TRUE(element && *element == i) << i;
        EXPECT_EQ(element.use_count(), 1) << "the queue has given its reference away";
    }
    const Stopwatch watch;
    EXPECT_FALSE(Pop(queue, 1200));
    EXPECT_GE(watch.Milliseconds(), 1190);
    const std::jthread producer([&] { queue.push(std::make_shared<int>(1)); });
    EXPECT_TRUE(Pop(queue, 20'000));
    EXPECT_LT(watch.Milliseconds(), 10'000);
}

TEST(Queue, CloseDropsEachElementOnceAndNothingIsTakenAfterIt) {
    const auto element = std::make_shared<int>(1);
    {
        Queue queue;
        for (int i = 0; i < 3; ++i)
            queue.push(element);
        const Stopwatch watch;
        queue.close();
        EXPECT_GE(watch.Milliseconds(), 100);
        queue.push(element);
        EXPECT_EQ(element.use_count(), 1);
        EXPECT_FALSE(Pop(queue, 20'000));
        for (int i = 0; i < 100; ++i)
            queue.close();
        EXPECT_LT(watch.Milliseconds(), 8000) << "a closed queue makes nobody wait";
        queue.open();
        for (const bool woken : {false, true}) {
            if (woken) queue.push(element), queue.wake(), queue.clear(), queue.wake();
            EXPECT_FALSE(woken && Pop(queue, 20'000));
            EXPECT_LT(watch.Milliseconds(), 10'000) << "a wake-up ends one wait";
            const Stopwatch reopened;
            EXPECT_FALSE(Pop(queue, 300)) << "nothing was kept for the next life";
            EXPECT_GE(reopened.Milliseconds(), 290) << "nor was a count";
        }
        queue.push(element);
    }
    EXPECT_EQ(element.use_count(), 1) << "destruction closes";
}

}  // namespace
