// The thread base and object monitoring.
#include <gtest/gtest.h>

#include <algorithm>
#include <list>

#include "base/BaseThread.h"
#include "fakes/Patience.h"

namespace {

// Counts its hooks; each pass waits a little and ends the thread after `allowed`.
struct CountingThread : CBaseThread {
    explicit CountingThread(int passes_allowed = 1 << 30) : allowed(passes_allowed) {}
    bool ThreadLoop() override {
        const timespec pause{0, 1'000'000};
        nanosleep(&pause, nullptr);
        return ++passes < allowed;
    }
    void OnBegin() override { ++begins; }
    void OnExit() override { ++exits; }

    const int allowed;
    std::atomic<int> passes{0}, begins{0}, exits{0};
};

TEST(Thread, EndsByItselfOrStoppedAndRestarts) {
    CountingThread thread(20), endless;
    EXPECT_TRUE(thread.Stop()) << "not started";
    for (int life = 1; life <= 2; ++life) {
        thread.passes = endless.passes = 0;
        ASSERT_TRUE(thread.Run() && endless.Run());
        EXPECT_TRUE(thread.WaitThreadEnd(1));
        EXPECT_TRUE(thread.Run()) << "not yet stopped: counts as started, and starts nothing";
        EXPECT_EQ(thread.begins, life);
        EXPECT_EQ(thread.passes, 20) << "nobody asked it to stop";
        EXPECT_EQ(thread.exits, life);
        EXPECT_FALSE(thread.IsRunning());
        const Stopwatch sleep;
        EXPECT_TRUE(thread.WaitForTimeOut(1050));
        EXPECT_GE(sleep.Milliseconds(), 1045);
        EXPECT_TRUE(thread.Stop());

        EXPECT_TRUE(Eventually([&] { return endless.passes > 3; }));
        EXPECT_TRUE(endless.IsRunning() && endless.Stop());
        EXPECT_EQ(endless.exits, life) << "the thread has ended before Stop returns";
        EXPECT_FALSE(endless.IsRunning());
    }
    EXPECT_TRUE(thread.Run_(true));
    EXPECT_TRUE(Eventually([&] { return thread.exits == 3; }));
    EXPECT_EQ(thread.passes, 21) << "detached it runs one pass";
}

// The table belongs to the whole process and is full afterwards.
TEST(Monitor, TextsCountsAndTheTablesLimit) {
    const CUsbipClientThread counted;
    class W {};
    static std::list<ADD_TO_MONITORING_LIST<W>> registrations;  // never unregistered
    registrations.emplace_back("W");
    OBJECT_MONITOR<W>::_new = 12345;
    OBJECT_MONITOR<W>::_delete = 3;
    std::string table, list;
    dump_monitoring_objects(table), dump_monitoring_objects2(list);
    EXPECT_TRUE(table.starts_with(" id     alive|     new|  delete| name\r\n  0")) << table;
    EXPECT_TRUE(table.ends_with("\r\n  1 !   12342|   12345|       3| W\r\n")) << table;
    EXPECT_NE(list.find("CBaseThread_alive: 1\r\n"), list.npos) << list;
    EXPECT_TRUE(list.ends_with("\r\nW_count: 12345\r\nW_alive: 12342\r\n")) << list;
    while (__MonitoringObjectIndex__() < 1025)
        registrations.emplace_back("W");
    dump_monitoring_objects(table);
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 1 + 1024);
}

}  // namespace
