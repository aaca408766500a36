// The thread base and object monitoring.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <string>

#include "base/BaseThread.h"
#include "support/Patience.h"

namespace {

// Counts its hooks; each pass waits a little and ends the thread after `passes_allowed`.
class CountingThread : public CBaseThread {
  public:
    explicit CountingThread(int passes_allowed) : passes_allowed_(passes_allowed) {}

    bool ThreadLoop() override {
        const timespec pause{0, 1'000'000};
        nanosleep(&pause, nullptr);
        return ++passes < passes_allowed_;
    }
    void OnBegin() override { ++begins; }
    void OnExit() override { ++exits; }

    std::atomic<int> passes{0}, begins{0}, exits{0};

  private:
    const int passes_allowed_;
};
constexpr int kUnlimited = 1 << 30;

TEST(Thread, EndsByItselfAndRestarts) {
    CountingThread thread(1);
    for (int life = 1; life <= 2; ++life) {
        thread.passes = 0;
        ASSERT_TRUE(thread.Run());
        ASSERT_TRUE(Eventually([&] { return !thread.IsRunning() && thread.exits == life; }));
        EXPECT_TRUE(thread.Run()) << "not yet stopped: counts as started, and starts nothing";
        EXPECT_EQ(thread.begins, life);
        EXPECT_EQ(thread.passes, 1);
        EXPECT_TRUE(thread.Stop());
    }
}

TEST(Thread, StopAsksAndJoins) {
    CountingThread thread(kUnlimited);
    EXPECT_TRUE(thread.Stop()) << "never started";
    EXPECT_FALSE(thread.IsRunning());
    ASSERT_TRUE(thread.Run());
    ASSERT_TRUE(thread.Run());
    ASSERT_TRUE(Eventually([&] { return thread.passes > 3; }));
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_TRUE(thread.Stop());
    const int passes = thread.passes;
    EXPECT_EQ(thread.begins, 1);
    EXPECT_EQ(thread.exits, 1);
    EXPECT_TRUE(thread.Stop(1)) << "already stopped";
    EXPECT_EQ(thread.passes, passes) << "no pass after Stop";
    EXPECT_FALSE(thread.IsRunning());
}

TEST(Thread, WaitThreadEndDoesNotAsk) {
    CountingThread thread(20);
    ASSERT_TRUE(thread.Run());
    EXPECT_TRUE(thread.WaitThreadEnd(1));
    EXPECT_EQ(thread.passes, 20);
    EXPECT_TRUE(thread.Stop());
}

TEST(Thread, DetachedThreadRunsOnePass) {
    CountingThread thread(kUnlimited);
    ASSERT_TRUE(thread.Run_(true));
    ASSERT_TRUE(Eventually([&] { return thread.exits == 1; }));
    EXPECT_LE(thread.passes, 1);
    EXPECT_TRUE(thread.Stop());
}

TEST(Thread, WaitForTimeOutSleepsOnlyWhenStarted) {
    CountingThread thread(kUnlimited);
    const Stopwatch idle;
    EXPECT_TRUE(thread.WaitForTimeOut(5000));
    EXPECT_LT(idle.Milliseconds(), 4000);
    ASSERT_TRUE(thread.Run());
    const Stopwatch started;
    EXPECT_TRUE(thread.WaitForTimeOut(1050));
    EXPECT_GE(started.Milliseconds(), 1045);
    thread.Stop();
}

TEST(Thread, AdaptorRunsItsLoop) {
    CUsbipClientThread empty;
    EXPECT_FALSE(empty.ThreadLoop());
    CUsbipClientLinuxThread thread;
    std::atomic<int> passes{0};
    thread.m_loop = [&] { return ++passes < 3; };
    thread.SetThreadName("adaptor");
    thread.SetThreadName(nullptr);
    ASSERT_TRUE(thread.Run());
    EXPECT_TRUE(Eventually([&] { return !thread.IsRunning(); }));
    EXPECT_EQ(passes, 3);
    thread.Stop();
}

// Reads the text of one entry; the table is shared by the whole process.
class MonitorTest : public testing::Test {
  protected:
    static std::string TableLine(std::int64_t index) {
        std::string table;
        dump_monitoring_objects(table);
        std::size_t from = 0;
        for (std::int64_t i = 0; i <= index; ++i)
            from = table.find("\r\n", from) + 2;
        return table.substr(from, table.find("\r\n", from) - from);
    }
    static std::string List() {
        std::string list = "replaced";
        dump_monitoring_objects2(list);
        return list;
    }
};

TEST_F(MonitorTest, TableShowsCounts) {
    class Widget {};
    const std::int64_t index = __MonitoringObjectIndex__();
    static const ADD_TO_MONITORING_LIST<Widget> registration("Widget");  // never unregistered
    char id[8];
    std::snprintf(id, sizeof id, "%3d", static_cast<int>(index));
    std::string table;
    dump_monitoring_objects(table);
    EXPECT_TRUE(table.starts_with(" id     alive|     new|  delete| name\r\n")) << table;

    const struct {
        std::int64_t made, destroyed;
        const char* line;
        const char* list;
    } cases[] = {
        {0, 0, "         0|       0|       0| Widget", "Widget_count: 0\r\nWidget_alive: 0\r\n"},
        {4, 4, "         0|       4|       4| Widget", "Widget_count: 4\r\nWidget_alive: 0\r\n"},
        {5, 3, " !       2|       5|       3| Widget", "Widget_count: 5\r\nWidget_alive: 2\r\n"},
        {123456789, 0, " !123456789|123456789|       0| Widget",
         "Widget_count: 123456789\r\nWidget_alive: 123456789\r\n"},
    };
    for (const auto& c : cases) {
        OBJECT_MONITOR<Widget>::_new = c.made;
        OBJECT_MONITOR<Widget>::_delete = c.destroyed;
        EXPECT_EQ(TableLine(index), id + std::string(c.line));
        EXPECT_TRUE(List().ends_with(c.list)) << List();
    }
}

TEST_F(MonitorTest, ThreadObjectsAreCounted) {
    EXPECT_STREQ(__MonitorintObjects__()[0].szName, "CBaseThread");
    const ICObjectMonitor* monitor = __MonitorintObjects__()[0].pMonitor;
    const long made = monitor->NewCount();
    const long destroyed = monitor->DeleteCount();
    {
        const CUsbipClientThread one;
        const CUsbipClientLinuxThread two;
        EXPECT_EQ(monitor->NewCount(), made + 2);
        EXPECT_EQ(monitor->DeleteCount(), destroyed);
    }
    EXPECT_EQ(monitor->DeleteCount(), destroyed + 2);
}

// Runs last: it fills the table for the rest of the process.
TEST_F(MonitorTest, ZFullTableStillCountsAttempts) {
    class Filler {};
    static std::deque<ADD_TO_MONITORING_LIST<Filler>> registrations;  // never unregistered
    while (__MonitoringObjectIndex__() < 1025)
        registrations.emplace_back("Filler");
    EXPECT_EQ(__MonitoringObjectIndex__(), 1025);
    std::string table;
    dump_monitoring_objects(table);
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 1 + 1024);
}

}  // namespace
