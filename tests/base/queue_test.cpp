// The semaphore queue: order, time-outs, close and re-open.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "base/SemQueue.h"
#include "support/Patience.h"

namespace {

// Elements are shared pointers: use_count() tells how many references the queue holds.
using Element = std::shared_ptr<int>;
using Queue = CBufferQueue_T<Element>;

Element Pop(Queue& queue, unsigned long timeout_ms) {
    Element element;
    queue.pop(element, timeout_ms);
    return element;
}

// Pops in a loop, as the send thread does, until it is told to stop.
class Consumer {
  public:
    explicit Consumer(Queue& queue)
        : thread_([this, &queue] {
              while (!stop_) {
                  passes_.fetch_add(1);
                  if (Pop(queue, 100)) received_.fetch_add(1);
              }
          }) {}
    ~Consumer() { Stop(); }

    void Stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    int Passes() const { return passes_; }
    int Received() const { return received_; }
    long CpuMilliseconds() {  // used so far; not after Stop
        clockid_t clock{};
        pthread_getcpuclockid(thread_.native_handle(), &clock);
        return ::CpuMilliseconds(clock);
    }

  private:
    std::atomic<bool> stop_{false};
    std::atomic<int> passes_{0};
    std::atomic<int> received_{0};
    std::thread thread_;
};

TEST(Queue, KeepsOrder) {
    Queue queue;
    for (int i = 0; i < 5; ++i)
        queue.push(std::make_shared<int>(i));
    for (int i = 0; i < 5; ++i) {
        const Element element = Pop(queue, 1000);
        ASSERT_TRUE(element);
        EXPECT_EQ(*element, i);
        EXPECT_EQ(element.use_count(), 1) << "the queue has given its reference away";
    }
}

TEST(Queue, EmptyPopWaitsForItsTimeOut) {
    Queue queue;
    const Stopwatch watch;
    EXPECT_FALSE(Pop(queue, 1200));
    EXPECT_GE(watch.Milliseconds(), 1190);
    EXPECT_LT(watch.Milliseconds(), 5000);
}

TEST(Queue, PopIsWokenByPush) {
    Queue queue;
    std::thread producer([&] { queue.push(std::make_shared<int>(1)); });
    EXPECT_TRUE(Pop(queue, 20'000));
    producer.join();
}

TEST(Queue, CloseDropsEveryElementOnceAndPauses) {
    Queue queue;
    const auto element = std::make_shared<int>(1);
    for (int i = 0; i < 3; ++i)
        queue.push(element);
    EXPECT_EQ(element.use_count(), 4);
    const Stopwatch watch;
    queue.close();
    EXPECT_GE(watch.Milliseconds(), 100);
    EXPECT_EQ(element.use_count(), 1);
    const Stopwatch again;
    queue.close();
    EXPECT_LT(again.Milliseconds(), 100) << "closing a closed queue does nothing";
}

TEST(Queue, ClosedQueueTakesAndGivesNothing) {
    Queue queue;
    queue.close();
    const auto element = std::make_shared<int>(1);
    queue.push(element);
    EXPECT_EQ(element.use_count(), 1);
    const Stopwatch watch;
    EXPECT_FALSE(Pop(queue, 20'000));
    EXPECT_LT(watch.Milliseconds(), 10'000);
    queue.open();
    EXPECT_FALSE(Pop(queue, 10)) << "nothing was kept for the next life";
}

TEST(Queue, OpeningAnOpenQueueKeepsItsElements) {
    Queue queue;
    queue.push(std::make_shared<int>(1));
    queue.open();
    EXPECT_TRUE(Pop(queue, 1000));
}

TEST(Queue, DestructionReleasesElements) {
    const auto element = std::make_shared<int>(1);
    {
        Queue queue;
        queue.push(element);
    }
    EXPECT_EQ(element.use_count(), 1);
}

TEST(Queue, CloseWakesABlockedConsumer) {
    Queue queue;
    std::atomic<bool> popping{false};
    Stopwatch watch;
    std::thread consumer([&] {
        popping = true;
        EXPECT_FALSE(Pop(queue, 20'000));
    });
    ASSERT_TRUE(Eventually([&] { return popping.load(); }));
    queue.close();
    consumer.join();
    EXPECT_LT(watch.Milliseconds(), 10'000);
}

// Every pop of the new life must wait for its time-out: a count left over from the old life would
// make it return at once, over and over.
TEST(Queue, ReopenWithABlockedConsumerNeverSpins) {
    Queue queue;
    Consumer consumer(queue);
    for (int cycle = 0; cycle < 5; ++cycle) {
        queue.close();
        queue.open();
    }
    const int passes = consumer.Passes();
    const long cpu = consumer.CpuMilliseconds();
    const Stopwatch watch;
    ASSERT_TRUE(Eventually([&] { return consumer.Passes() >= passes + 10; }));
    EXPECT_GE(watch.Milliseconds(), 700) << "pops on the re-opened queue did not wait";
    EXPECT_LT(consumer.CpuMilliseconds() - cpu, 100);
    queue.push(std::make_shared<int>(1));
    EXPECT_TRUE(Eventually([&] { return consumer.Received() == 1; }));
}

TEST(Queue, ReopenUnderProducersLosesNothingLater) {
    Queue queue;
    Consumer consumer(queue);
    std::atomic<bool> stop{false};
    std::vector<std::thread> producers;
    for (int i = 0; i < 2; ++i) {
        producers.emplace_back([&] {
            while (!stop) {
                queue.push(std::make_shared<int>(1));
                std::this_thread::yield();
            }
        });
    }
    for (int cycle = 0; cycle < 3; ++cycle) {
        queue.close();
        queue.open();
    }
    stop = true;
    for (std::thread& producer : producers)
        producer.join();
    ASSERT_TRUE(Eventually([&, last = -1]() mutable {
        return std::exchange(last, consumer.Received()) == consumer.Received();
    }));
    const int before = consumer.Received();
    constexpr int kMore = 1000;
    for (int i = 0; i < kMore; ++i)
        queue.push(std::make_shared<int>(1));
    EXPECT_TRUE(Eventually([&] { return consumer.Received() >= before + kMore; }));
}

}  // namespace
