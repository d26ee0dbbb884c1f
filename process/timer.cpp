// Timers. Each timer is a timerfd on CLOCK_REALTIME and a detached thread that
// waits on it and runs the handler at each expiry, so a handler runs beside
// every other thread of the program, as a SIGEV_THREAD timer's would. (glibc
// starts the threads of SIGEV_THREAD timers out of the sanitizers' sight, so
// the program keeps its timer threads itself.)
//
// Deleting a timer sets its stop event; its thread then closes the timer and
// frees it. One lock covers every use of a live timer by the API, so a timer
// is never armed after its thread has freed it.
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
};

namespace {

std::mutex g_timer_lock;  // guards the timers reachable through handles

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
        union sigval value {};
        value.sival_int = 0;
        timer->proc(value);
    }
    std::lock_guard<std::mutex> hold(g_timer_lock);
    close(timer->timer_fd);
    close(timer->stop_fd);
    delete timer;
    return nullptr;
}

void request_stop(AmtTimer* timer) {
    uint64_t one = 1;
    ssize_t n = write(timer->stop_fd, &one, sizeof(one));
    (void)n;  // an eventfd write of 1 cannot fail short of overflow
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
    auto* timer = new AmtTimer{tfd, sfd, proc};
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
        if (old != kNoTimer) request_stop(old);  // another thread created one meanwhile
    }
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
    std::lock_guard<std::mutex> hold(g_timer_lock);
    AmtTimer* timer = handle->exchange(kNoTimer);
    if (timer == kNoTimer) return;
    log_dbg("delete timer.timerId:%d.", timer->timer_fd);
    request_stop(timer);
}
