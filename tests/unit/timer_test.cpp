// Timers shared by several threads: a deletion is done once, and once
// deleteTimer has returned the deleted timer's handler no longer runs,
// whoever deletes it (another thread, the handler itself, another handler).
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "log_capture.hpp"
#include "process/pub_util.hpp"

namespace {

using namespace std::chrono_literals;

// Waits up to two seconds for pred.
template <typename Pred>
bool eventually(Pred pred) {
    for (int i = 0; i < 2000; ++i) {
        if (pred()) return true;
        usleep(1000);
    }
    return pred();
}

std::atomic<int> g_started{0};
std::atomic<int> g_finished{0};

void slow_handler(union sigval) {
    ++g_started;
    usleep(200000);
    ++g_finished;
}

TEST(Timer, DeletionWaitsForTheRunningHandlerAndNoneRunsAfterIt) {
    g_started = 0;
    g_finished = 0;
    TimerHandle timer{kNoTimer};
    createTimer(&timer, slow_handler);
    setTimer(&timer, 10, kTimerPeriodic);
    ASSERT_TRUE(eventually([] { return g_started.load() > 0; }));
    deleteTimer(&timer);
    EXPECT_EQ(timer.load(), kNoTimer);
    EXPECT_EQ(g_finished.load(), g_started.load());
    int runs = g_started;
    std::this_thread::sleep_for(100ms);  // ten more periods
    EXPECT_EQ(g_started.load(), runs);
}

void count_handler(union sigval) { ++g_started; }

TEST(Timer, TwoThreadsDeletingOneTimerDeleteItOnce) {
    LogCapture log;
    for (int round = 0; round < 20; ++round) {
        TimerHandle timer{kNoTimer};
        createTimer(&timer, count_handler);
        setTimer(&timer, 1, kTimerPeriodic);
        std::atomic<bool> go{false};
        auto remove = [&] {
            while (!go) {
            }
            deleteTimer(&timer);
        };
        std::thread a(remove), b(remove);
        go = true;
        a.join();
        b.join();
        EXPECT_EQ(timer.load(), kNoTimer);
    }
    EXPECT_EQ(log.count("delete timer.timerId:"), 20u);
}

// Each handler deletes both timers, its own and the other one; both fire
// together. Exactly one handler runs, once, and nothing waits for ever.
TimerHandle g_first{kNoTimer};
TimerHandle g_second{kNoTimer};
std::atomic<int> g_cross_runs{0};

void delete_both(union sigval) {
    ++g_cross_runs;
    deleteTimer(&g_first);
    deleteTimer(&g_second);
}

TEST(Timer, HandlersThatDeleteTheirOwnAndEachOthersTimerRunOnceWithoutDeadlock) {
    for (int round = 0; round < 20; ++round) {
        g_cross_runs = 0;
        createTimer(&g_first, delete_both);
        createTimer(&g_second, delete_both);
        setTimer(&g_first, 5, kTimerPeriodic);
        setTimer(&g_second, 5, kTimerPeriodic);
        ASSERT_TRUE(eventually([] { return g_first.load() == kNoTimer && g_second.load() == kNoTimer; }));
        deleteTimer(&g_first);  // outside a handler: waits until no handler runs
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(g_cross_runs.load(), 1) << "round " << round;
    }
}

// A handle without a timer is deleted silently and cannot be set.
TEST(Timer, ACreatedTimerIsReplacedAndTheOldOneNeverRunsAgain) {
    LogCapture log;
    g_started = 0;
    TimerHandle timer{kNoTimer};
    deleteTimer(&timer);
    setTimer(&timer, 1500, kTimerOneShot);
    EXPECT_TRUE(log.contains("invalid parameter.timerId:-1; timeMSec:1500."));
    EXPECT_FALSE(log.contains("delete timer"));
    createTimer(&timer, count_handler);
    setTimer(&timer, 5, kTimerPeriodic);
    ASSERT_TRUE(eventually([] { return g_started.load() > 0; }));
    createTimer(&timer, count_handler);  // disarmed: nothing runs from here on
    int runs = g_started;
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(g_started.load(), runs);
    EXPECT_EQ(log.count("delete timer.timerId:"), 1u);
    deleteTimer(&timer);
    deleteTimer(&timer);
    EXPECT_EQ(timer.load(), kNoTimer);
    EXPECT_EQ(log.count("delete timer.timerId:"), 2u);
}

}  // namespace
