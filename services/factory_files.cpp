#include "services/factory_files.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "process/pub_util.hpp"

extern char** environ;

namespace {

constexpr uint32_t kSyncPauseMs = 50;
constexpr uint32_t kChildPollMs = 10;

// A descriptor that becomes readable when the process ends, so the wait for
// it can watch the thread's stop event beside it; -1 where the kernel has none
// (pidfd_open came with Linux 5.3).
int open_pidfd(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

// Reaps the child if it has ended. True when it has (or is not ours to wait
// for any more), false while it runs.
bool reaped(pid_t pid) {
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return true;
    return r < 0 && errno != EINTR;
}

}  // namespace

bool amt_wait_child(pid_t pid, ChildWait how) {
    int pidfd = how == ChildWait::kPidfd ? open_pidfd(pid) : -1;
    if (pidfd >= 0) {
        int w = pub_util_wait_fd(pidfd, POLLIN, -1);
        close(pidfd);
        if (w == kWaitStopped) return false;
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return true;
    }
    // No descriptor for the process: ask for its end between short waits,
    // each of which a stop ends at once.
    while (!reaped(pid)) {
        if (!pub_util_msleep(kChildPollMs)) return false;
    }
    return true;
}

void amt_join_path(char (&out)[kAmtPathSize], const char* base, const char* name) {
    memset(out, 0, sizeof(out));
    snprintf(out, sizeof(out), "%s%s", base != nullptr ? base : "", name != nullptr ? name : "");
}

bool amt_run_sync() {
    // The agent blocks its exit signals and ignores SIGPIPE; the program gets
    // the ordinary mask and dispositions back.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    char program[] = "/system/bin/sync";
    char* argv[] = {program, nullptr};
    pid_t pid = -1;
    int err = posix_spawn(&pid, kSyncProgram, nullptr, &attr, argv, environ);
    posix_spawnattr_destroy(&attr);
    if (err != 0) {
        log_dbg("run %s failure error:%d-%s", kSyncProgram, err, strerror(err));
        return !pub_util_stop_requested();
    }
    return amt_wait_child(pid, ChildWait::kPidfd) && !pub_util_stop_requested();
}

bool amt_sync_ritual() {
    return pub_util_msleep(kSyncPauseMs) && amt_run_sync() && pub_util_msleep(kSyncPauseMs) && amt_run_sync();
}
