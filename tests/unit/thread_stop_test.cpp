// A stop request must end every kind of blocking wait at once, without help
// from the code the thread runs, and leave the thread joinable.
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>
#include <vector>

#include "channel/event_sem.hpp"
#include "log_capture.hpp"
#include "process/pub_util.hpp"

namespace {

struct Blocked {
    std::function<bool()> wait;  // returns true if the wait ended normally
    std::atomic<bool> registered{false};
    std::atomic<int> outcome{-1};  // 1 ended normally, 0 stopped
};

void* blocked_proc(void* arg) {
    auto* b = static_cast<Blocked*>(arg);
    b->registered = true;
    bool normal = b->wait();
    b->outcome = normal ? 1 : 0;
    if (!normal) pub_util_handle_thread_signal(SIGUSR1);
    return nullptr;
}

// Starts a thread that blocks in wait, stops it, and joins it.
int stop_blocked(std::function<bool()> wait) {
    Blocked b;
    b.wait = std::move(wait);
    pthread_t tid{};
    EXPECT_EQ(pub_util_create_thread(&tid, blocked_proc, &b, false), 0);
    while (!b.registered) usleep(1000);
    usleep(20000);  // let it reach its wait
    ThreadHandle handle{tid};
    EXPECT_EQ(pub_util_kill_thread(&handle), 0);
    EXPECT_EQ(handle.load(), pthread_t{});
    EXPECT_EQ(pthread_join(tid, nullptr), 0);
    return b.outcome;
}

// The waits of a started message look at the ring again after each timed
// wait on rcv_sem; a stop must end that loop, not only a single wait.
TEST(ThreadStop, EndsAReadWaitASemaphoreWaitAndTimedWaitsThatKeepLookingAgain) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    EXPECT_EQ(stop_blocked([&] { return pub_util_wait_fd(p[0], POLLIN, -1) == 1; }), 0);
    close(p[0]);
    close(p[1]);
    EventSem sem;
    ASSERT_TRUE(sem.create(0));
    EXPECT_EQ(stop_blocked([&] { return sem.wait(); }), 0);
    EXPECT_EQ(stop_blocked([&] {
                  for (;;) {
                      if (!sem.wait_for(20)) return false;
                  }
              }),
              0);
}

// A sleep ends, and every later sleep of the thread returns at once.
TEST(ThreadStop, StopStaysSetSoTheWayOutCannotBlockAgain) {
    LogCapture log;
    EXPECT_EQ(stop_blocked([] {
                  bool first = pub_util_msleep(600000);
                  bool second = pub_util_msleep(600000);  // returns at once
                  return first || second || !pub_util_stop_requested();
              }),
              0);
    EXPECT_TRUE(log.contains("will be end"));
}

// An unstopped sleep lasts at least its milliseconds, the part below a
// second included, in a stoppable thread (which waits on its stop event) and
// in one without a stop event (the main thread).
using Clock = std::chrono::steady_clock;

std::chrono::milliseconds slept_for(uint32_t msec) {
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(pub_util_msleep(msec));
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

TEST(ThreadStop, UnstoppedSleepLastsItsMilliseconds) {
    EXPECT_GE(slept_for(250).count(), 250);
    struct Slept {
        std::chrono::milliseconds short_one{0};
        std::chrono::milliseconds long_one{0};
    } slept;
    pthread_t tid{};
    ASSERT_EQ(pub_util_create_thread(
                  &tid,
                  [](void* arg) -> void* {
                      auto* s = static_cast<Slept*>(arg);
                      s->short_one = slept_for(250);
                      s->long_one = slept_for(1050);
                      return nullptr;
                  },
                  &slept, false),
              0);
    ASSERT_EQ(pthread_join(tid, nullptr), 0);
    EXPECT_GE(slept.short_one.count(), 250);
    EXPECT_GE(slept.long_one.count(), 1050);
}

TEST(ThreadStop, NoThreadAndEndedThreadGiveZeroAndKeepTheHandle) {
    ThreadHandle none{pthread_t{}};
    EXPECT_EQ(pub_util_kill_thread(&none), 0);

    pthread_t tid{};
    ASSERT_EQ(pub_util_create_thread(&tid, [](void*) -> void* { return nullptr; }, nullptr, false), 0);
    ASSERT_EQ(pthread_join(tid, nullptr), 0);
    ThreadHandle ended{tid};
    EXPECT_EQ(pub_util_kill_thread(&ended), 0);
    EXPECT_EQ(ended.load(), tid);
}

// A stop that comes before the new thread has run a single line is kept for
// it: the teardown may stop a thread the start has only just created. The
// thread first asks for its stop without waiting (a still-set stop event
// would end a sleep whatever the request said), then sleeps.
std::atomic<bool> g_released{false};

void* ask_then_sleep(void*) {
    while (!g_released) sched_yield();
    bool asked = pub_util_stop_requested();
    bool slept = pub_util_msleep(600000);
    return reinterpret_cast<void*>(uintptr_t{asked ? 0u : 1u} | uintptr_t{slept ? 2u : 0u});
}

TEST(ThreadStop, StopRightAfterTheStartIsNotLost) {
    for (int i = 0; i < 50; ++i) {
        g_released = false;
        pthread_t tid{};
        ASSERT_EQ(pub_util_create_thread(&tid, ask_then_sleep, nullptr, false), 0);
        ThreadHandle handle{tid};
        EXPECT_EQ(pub_util_kill_thread(&handle), 0);
        g_released = true;
        void* result = &handle;
        ASSERT_EQ(pthread_join(tid, &result), 0);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(result) & 1u, 0u) << "the thread did not see its stop request";
        EXPECT_EQ(reinterpret_cast<uintptr_t>(result) & 2u, 0u) << "the sleep was not ended by the stop";
    }
}

// A thread that could have no stop event could never be stopped, and a
// teardown joining it would hang: such a thread is not started at all.
TEST(ThreadStop, ThreadWithoutAStopEventIsNotStarted) {
    LogCapture log;
    std::vector<Blocked> blocked(40);
    std::vector<pthread_t> started;
    int refused = 0;
    for (Blocked& b : blocked) {
        b.wait = [] { return pub_util_msleep(600000); };
        pthread_t tid{};
        int err = pub_util_create_thread(&tid, blocked_proc, &b, false);
        if (err == 0) {
            started.push_back(tid);
        } else {
            EXPECT_EQ(err, EAGAIN);
            ++refused;
        }
    }
    EXPECT_GT(refused, 0);
    EXPECT_TRUE(log.contains("table full"));
    for (pthread_t tid : started) {
        ThreadHandle handle{tid};
        EXPECT_EQ(pub_util_kill_thread(&handle), 0);
        EXPECT_EQ(pthread_join(tid, nullptr), 0);
    }
    int ran = 0;
    for (Blocked& b : blocked) ran += b.registered ? 1 : 0;
    EXPECT_EQ(ran, static_cast<int>(started.size())) << "a refused thread ran";
}

TEST(EventSemaphore, CountsPostsAndWakesOncePerPost) {
    EventSem sem;
    ASSERT_TRUE(sem.create(0));
    sem.post();
    sem.post();
    EXPECT_TRUE(sem.wait());
    EXPECT_TRUE(sem.wait());
    sem.destroy();
    EXPECT_FALSE(sem.wait());  // a destroyed semaphore never blocks
}

}  // namespace
