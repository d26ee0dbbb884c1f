// Timers. Each timer is a timerfd on CLOCK_REALTIME and a detached thread that
// waits on it and runs the handler at each expiry, so a handler runs beside
// every other thread of the program, as a SIGEV_THREAD timer's would. (glibc
// starts the threads of SIGEV_THREAD timers out of the sanitizers' sight, so
// the program keeps its timer threads itself.)
//
// Deleting a timer. The handle is emptied with one exchange under
// g_timer_lock, so of two threads that delete the same timer at once (a
// time-out and the PC's first bytes) one deletes it and the other finds
// kNoTimer. The timer is marked deleted and its thread is told to stop; the
// thread closes the timer and frees it.
//
// A handler never runs once deleteTimer has returned. Handlers run one at a
// time, under g_handler_lock, and each checks its timer's mark under that lock
// before it runs. deleteTimer, outside a handler, ends by taking and releasing
// g_handler_lock: a handler already running (woken just before the deletion)
// has then finished, and any later expiry finds the mark. It does so also when
// the handle was already empty, because the one who emptied it may be the
// handler itself (a time-out deletes its own timer) and still be running.
//
// The traps, and why they cannot deadlock:
// - a handler that deletes its own timer or another one already holds
//   g_handler_lock, so no other handler runs and there is nothing to wait for;
//   it only marks and returns (t_in_handler tells the two cases apart);
// - a deleter outside a handler never holds g_timer_lock while it waits for
//   g_handler_lock, and handlers take g_timer_lock only inside g_handler_lock,
//   so the two locks are always taken in one order;
// - handlers never wait for the channel threads, the teardown or the USB
//   threads, which may be the ones waiting for them.
// Because handlers run one at a time, a handler must be short and must not
// block: the handshake write is non-blocking, a time-out only publishes a
// property and signals the process.
#include "process/pub_util.hpp"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

struct AmtTimer {
    int timer_fd;
    int stop_fd;
    TimerProc proc;
    bool deleted;  // guarded by g_timer_lock
};

namespace {

std::mutex g_timer_lock;    // guards the timers reachable through handles
std::mutex g_handler_lock;  // held while a handler runs; one handler at a time
thread_local bool t_in_handler = false;

// True when the handler may run: its timer is not deleted.
bool may_run(AmtTimer* timer) {
    std::lock_guard<std::mutex> hold(g_timer_lock);
    return !timer->deleted;
}

void* timer_thread_proc(void* arg) {
    auto* timer = static_cast<AmtTimer*>(arg);
    pollfd p[2] = {{timer->timer_fd, POLLIN, 0}, {timer->stop_fd, POLLIN, 0}};
    for (;;) {
        int r = poll(p, 2, -1);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0 || (p[1].revents & POLLIN)) break;
        uint64_t expirations = 0;
        if (read(timer->timer_fd, &expirations, sizeof(expirations)) != static_cast<ssize_t>(sizeof(expirations))) {
            continue;
        }
        std::lock_guard<std::mutex> running(g_handler_lock);
        if (!may_run(timer)) break;
        union sigval value {};
        value.sival_int = 0;
        t_in_handler = true;
        timer->proc(value);
        t_in_handler = false;
    }
    std::lock_guard<std::mutex> hold(g_timer_lock);
    close(timer->timer_fd);
    close(timer->stop_fd);
    delete timer;
    return nullptr;
}

// Caller holds g_timer_lock. After this the timer belongs to its thread alone.
void retire(AmtTimer* timer) {
    timer->deleted = true;
    uint64_t one = 1;
    ssize_t n = write(timer->stop_fd, &one, sizeof(one));
    (void)n;  // an eventfd write of 1 cannot fail short of overflow
}

// Returns once no handler runs (see the top of the file). In a handler there
// is nothing to wait for: the caller is the one handler that runs.
void wait_handlers_idle() {
    if (t_in_handler) return;
    std::lock_guard<std::mutex> barrier(g_handler_lock);
}

}  // namespace

long timer_log_id(const TimerHandle* handle) {
    std::lock_guard<std::mutex> hold(g_timer_lock);
    AmtTimer* t = handle ? handle->load() : kNoTimer;
    return t ? t->timer_fd : -1;
}

void createTimer(TimerHandle* handle, TimerProc proc) {
    if (handle == nullptr) return;
    if (handle->load() != kNoTimer) deleteTimer(handle);
    int tfd = timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK);
    if (tfd < 0) {
        log_dbg("timer_create, error: %d - %s", errno, strerror(errno));
        return;
    }
    int sfd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (sfd < 0) {
        log_dbg("timer_create, error: %d - %s", errno, strerror(errno));
        close(tfd);
        return;
    }
    auto* timer = new AmtTimer{tfd, sfd, proc, false};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid{};
    int err = pthread_create(&tid, &attr, timer_thread_proc, timer);
    pthread_attr_destroy(&attr);
    if (err != 0) {
        log_dbg("timer_create, error: %d - %s", err, strerror(err));
        close(tfd);
        close(sfd);
        delete timer;
        return;
    }
    AmtTimer* old;
    {
        std::lock_guard<std::mutex> hold(g_timer_lock);
        old = handle->exchange(timer);
        if (old != kNoTimer) retire(old);  // another thread created one meanwhile
    }
    if (old != kNoTimer) wait_handlers_idle();
    log_dbg("createTimer success, timerId[%d]", tfd);
}

void setTimer(TimerHandle* handle, int32_t msec, int kind) {
    std::lock_guard<std::mutex> hold(g_timer_lock);
    AmtTimer* timer = handle ? handle->load() : kNoTimer;
    if (timer == kNoTimer) {
        log_dbg("invalid parameter.timerId:%d; timeMSec:%d.", -1, msec);
        return;
    }
    itimerspec timing{};
    timing.it_value.tv_sec = msec / 1000;
    timing.it_value.tv_nsec = static_cast<long>(msec % 1000) * 1000000L;
    if (kind == kTimerPeriodic) timing.it_interval = timing.it_value;
    if (timerfd_settime(timer->timer_fd, 0, &timing, nullptr) != 0) {
        log_dbg("timer_settime errorr: %d - %s", errno, strerror(errno));
        return;
    }
    log_dbg("setTimer success, timerId[%d], timeMSec:%d. ", timer->timer_fd, msec);
}

void deleteTimer(TimerHandle* handle) {
    if (handle == nullptr) return;
    {
        std::lock_guard<std::mutex> hold(g_timer_lock);
        AmtTimer* timer = handle->exchange(kNoTimer);
        if (timer != kNoTimer) {
            log_dbg("delete timer.timerId:%d.", timer->timer_fd);
            retire(timer);
        }
    }
    wait_handlers_idle();
}
