// The semaphore queue: order, time-outs, close and re-open.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

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

TEST(Queue, KeepsOrder) {
    Queue queue;
    for (int i = 0; i < 5; ++i)
        queue.push(std::make_shared<int>(i));
    queue.open();  // is open, and keeps what it holds
    for (int i = 0; i < 5; ++i) {
        const Element element = Pop(queue, 1000);
        ASSERT_TRUE(element);
        EXPECT_EQ(*element, i);
        EXPECT_EQ(element.use_count(), 1) << "the queue has given its reference away";
    }
}

TEST(Queue, PopWaitsForAnElementOrItsTimeOut) {
    Queue queue;
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
        const Stopwatch reopened;
        EXPECT_FALSE(Pop(queue, 300)) << "nothing was kept for the next life";
        EXPECT_GE(reopened.Milliseconds(), 290) << "nor was a count";
        queue.push(element);
    }
    EXPECT_EQ(element.use_count(), 1) << "destruction closes";
}

TEST(Queue, CloseWakesEveryBlockedConsumer) {
    Queue queue;
    std::atomic<int> popping{0};
    const Stopwatch watch;
    {
        const auto pop = [&] { return ++popping, Pop(queue, 20'000); };
        const std::jthread one(pop), two(pop);
        EXPECT_TRUE(Eventually([&] { return popping == 2; }));
        queue.close();
    }
    EXPECT_LT(watch.Milliseconds(), 10'000);
}

// Every pop of the new life must wait for its time-out: a count left over from the old life would
// make it return at once, over and over.
TEST(Queue, ReopenedItNeitherSpinsNorLosesElements) {
    for (const int producers : {0, 2}) {
        Queue queue;
        std::atomic<int> received{0}, empty{0};
        std::jthread consumer([&](const std::stop_token& stop) {
            while (!stop.stop_requested())
                ++(Pop(queue, 100) ? received : empty);
        });
        {
            std::vector<std::jthread> threads;
            const auto push = [&](const std::stop_token& stop) {
                while (!stop.stop_requested())
                    queue.push(std::make_shared<int>(1));
            };
            for (int i = 0; i < producers; ++i)
                threads.emplace_back(push);
            for (int cycle = 0; cycle < 6; ++cycle) {
                // A pass has just ended: close meets the consumer inside the next pop.
                EXPECT_TRUE(Eventually(
                    [&, next = received + empty + 1] { return received + empty >= next; }));
                queue.close(), queue.open();
                if (producers > 0) continue;
                const Stopwatch watch;
                EXPECT_TRUE(Eventually([&, end = empty + 4] { return empty >= end; }));
                EXPECT_GE(watch.Milliseconds(), 200) << "re-opened, pops did not wait";
            }
        }
        const int drained = empty + (producers == 0 ? 0 : 3);
        ASSERT_TRUE(Eventually([&] { return empty >= drained; }));
        const long cpu = CpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID);
        ASSERT_TRUE(Eventually([&, end = empty + 5] { return empty >= end; }));
        EXPECT_LT(CpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID) - cpu, 250) << "in half a second";
        const int all = received + 1000;
        for (int i = 0; i < 1000; ++i)
            queue.push(std::make_shared<int>(1));
        EXPECT_TRUE(Eventually([&] { return received == all; })) << received << " of " << all;
    }
}

}  // namespace
