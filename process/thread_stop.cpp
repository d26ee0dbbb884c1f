// Stopping one thread without signals.
//
// Each stoppable thread registers an eventfd (its stop event) in a small table
// keyed by its pthread id; pub_util_kill_thread sets the event. All blocking
// waits of the thread poll that event beside what they wait for, so a thread
// blocked in a read, an accept, a semaphore wait or a sleep returns at once and
// unwinds through its own returns. The event stays set: every later wait of the
// thread returns "stopped" too, so the way out cannot block again.
//
// The table is guarded by a mutex; a thread leaves it before it ends, so a kill
// never touches the id of a thread that is gone.
#include "process/pub_util.hpp"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr size_t kMaxStoppable = 32;

struct StopSlot {
    pthread_t tid{};
    int event_fd = -1;  // -1: slot free
};

std::mutex g_stop_lock;
StopSlot g_stop_slots[kMaxStoppable];  // guarded by g_stop_lock

thread_local int t_stop_fd = -1;
thread_local bool t_stopped = false;

bool stop_event_set(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) > 0;
}

}  // namespace

ThreadStopScope::ThreadStopScope() {
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        log_dbg("stop event of thread %ld: eventfd error:%d-%s", static_cast<long>(syscall(SYS_gettid)),
                errno, strerror(errno));
        return;
    }
    std::lock_guard<std::mutex> hold(g_stop_lock);
    for (auto& s : g_stop_slots) {
        if (s.event_fd < 0) {
            s.tid = pthread_self();
            s.event_fd = fd;
            t_stop_fd = fd;
            t_stopped = false;
            return;
        }
    }
    close(fd);
    log_dbg("stop event of thread %ld: table full", static_cast<long>(syscall(SYS_gettid)));
}

ThreadStopScope::~ThreadStopScope() {
    if (t_stop_fd < 0) return;
    {
        std::lock_guard<std::mutex> hold(g_stop_lock);
        for (auto& s : g_stop_slots) {
            if (s.event_fd == t_stop_fd) {
                s.event_fd = -1;
                s.tid = pthread_t{};
            }
        }
    }
    close(t_stop_fd);
    t_stop_fd = -1;
}

int pub_util_kill_thread(ThreadHandle* handle) {
    if (handle == nullptr) return 0;
    pthread_t tid = handle->load();
    if (tid == pthread_t{}) return 0;
    {
        std::lock_guard<std::mutex> hold(g_stop_lock);
            StopSlot* slot = nullptr;
        for (auto& s : g_stop_slots) {
            if (s.event_fd >= 0 && pthread_equal(s.tid, tid)) slot = &s;
        }
        if (slot == nullptr) return 0;  // the thread has ended: nothing to stop
        uint64_t one = 1;
        if (write(slot->event_fd, &one, sizeof(one)) != static_cast<ssize_t>(sizeof(one))) {
            int err = errno;
            log_err("pthread_kill(): %d - %s", err, strerror(err));
            return err;
        }
    }
    usleep(10000);
    handle->store(pthread_t{});
    return 0;
}

void pub_util_handle_thread_signal(int sig) {
    if (sig == SIGUSR1) {
        log_dbg("thread %d will be end", static_cast<int>(syscall(SYS_gettid)));
        return;
    }
    char text[100];
    snprintf(text, sizeof(text), "unknown signal: %d.\r\n", sig);
    log_err("%s", text);
}

bool pub_util_stop_requested() {
    if (t_stopped) return true;
    if (t_stop_fd >= 0 && stop_event_set(t_stop_fd)) t_stopped = true;
    return t_stopped;
}

bool pub_util_msleep(uint32_t msec) {
    if (t_stop_fd < 0) {
        timespec ts{static_cast<time_t>(msec / 1000), static_cast<long>(msec % 1000) * 1000000L};
        while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
        }
        return true;
    }
    if (pub_util_stop_requested()) return false;
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += msec / 1000;
    end.tv_nsec += static_cast<long>(msec % 1000) * 1000000L;
    if (end.tv_nsec >= 1000000000L) {
        end.tv_sec += 1;
        end.tv_nsec -= 1000000000L;
    }
    for (;;) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        long long left_ns = (end.tv_sec - now.tv_sec) * 1000000000LL + (end.tv_nsec - now.tv_nsec);
        if (left_ns <= 0) return true;
        timespec wait{static_cast<time_t>(left_ns / 1000000000LL), static_cast<long>(left_ns % 1000000000LL)};
        pollfd p{t_stop_fd, POLLIN, 0};
        int r = ppoll(&p, 1, &wait, nullptr);
        if (r > 0) {
            t_stopped = true;
            return false;
        }
        if (r < 0 && errno != EINTR) return true;
    }
}

int pub_util_wait_fd(int fd, short events, int timeout_ms) {
    if (pub_util_stop_requested()) return kWaitStopped;
    pollfd p[2] = {{fd, events, 0}, {t_stop_fd, POLLIN, 0}};
    nfds_t count = t_stop_fd >= 0 ? 2 : 1;
    for (;;) {
        int r = poll(p, count, timeout_ms);
        if (r < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (r == 0) return 0;
        if (count == 2 && (p[1].revents & POLLIN)) {
            t_stopped = true;
            return kWaitStopped;
        }
        return 1;
    }
}

void pub_util_send_exit_signal() { kill(getpid(), SIGTERM); }
