// The wait for /system/bin/sync, in both of its forms: through a descriptor
// of the process, and by asking waitpid between short waits, as on kernels
// without pidfd_open. Either form reaps a child that ends, and a stop ends
// either wait at once, leaving the child running.
#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include "process/pub_util.hpp"
#include "services/factory_files.hpp"

extern char** environ;

namespace {

pid_t spawn_sleep(const char* seconds) {
    char program[] = "sleep";
    char* argv[] = {program, const_cast<char*>(seconds), nullptr};
    pid_t pid = -1;
    EXPECT_EQ(posix_spawnp(&pid, "sleep", nullptr, nullptr, argv, environ), 0);
    return pid;
}

bool still_ours(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, WNOHANG) == 0;
}

struct Waiter {
    pid_t pid;
    ChildWait how;
    std::atomic<bool> started{false};
    std::atomic<int> outcome{-1};  // 1 ended, 0 stopped
};

void* waiter_proc(void* arg) {
    auto* w = static_cast<Waiter*>(arg);
    w->started = true;
    w->outcome = amt_wait_child(w->pid, w->how) ? 1 : 0;
    return nullptr;
}

TEST(ChildWait, BothFormsReapAChildThatEndsAndAStopEndsTheWaitWithTheChildStillRunning) {
    for (ChildWait how : {ChildWait::kPidfd, ChildWait::kPoll}) {
        SCOPED_TRACE(how == ChildWait::kPidfd ? "pidfd" : "poll");
        pid_t quick = spawn_sleep("0.05");
        ASSERT_GT(quick, 0);
        EXPECT_TRUE(amt_wait_child(quick, how));
        int status = 0;
        EXPECT_EQ(waitpid(quick, &status, WNOHANG), -1) << "the child was not reaped";
        EXPECT_EQ(errno, ECHILD);

        // A sync that would take a minute: the stop must not wait for it.
        Waiter w{spawn_sleep("60"), how};
        ASSERT_GT(w.pid, 0);
        pthread_t tid{};
        ASSERT_EQ(pub_util_create_thread(&tid, waiter_proc, &w, false), 0);
        while (!w.started) sched_yield();
        ThreadHandle handle{tid};
        EXPECT_EQ(pub_util_kill_thread(&handle), 0);
        ASSERT_EQ(pthread_join(tid, nullptr), 0);
        EXPECT_EQ(w.outcome, 0);
        EXPECT_TRUE(still_ours(w.pid)) << "the wait lasted until the child's end";
        kill(w.pid, SIGKILL);
        waitpid(w.pid, &status, 0);
    }
}

}  // namespace
