// POSIX timers whose expiries run the handler on a thread of their own
// (SIGEV_THREAD on CLOCK_REALTIME). Handles are atomics: creating replaces and
// deletes an old timer, deleting takes the id out first, so a timer shared by
// a timer thread and the receive thread is deleted exactly once.
#include "process/pub_util.hpp"

#include <cerrno>
#include <cstdint>
#include <cstring>

const timer_t kNoTimer = reinterpret_cast<timer_t>(static_cast<intptr_t>(-1));

long timer_log_id(const TimerHandle* handle) {
    if (handle == nullptr) return -1;
    return static_cast<long>(reinterpret_cast<intptr_t>(handle->load()));
}

void createTimer(TimerHandle* handle, TimerProc proc) {
    if (handle == nullptr) return;
    sigevent ev{};
    ev.sigev_notify = SIGEV_THREAD;
    ev.sigev_signo = SIGRTMIN;
    ev.sigev_value.sival_int = 0;
    ev.sigev_notify_function = proc;
    ev.sigev_notify_attributes = nullptr;
    if (handle->load() != kNoTimer) deleteTimer(handle);
    timer_t id = kNoTimer;
    if (timer_create(CLOCK_REALTIME, &ev, &id) != 0) {
        log_dbg("timer_create, error: %d - %s", errno, strerror(errno));
        return;
    }
    if (id == kNoTimer) {
        log_dbg("timer_create, error, id is -1.");
        return;
    }
    timer_t old = handle->exchange(id);
    if (old != kNoTimer) timer_delete(old);  // another thread created one meanwhile
    log_dbg("createTimer success, timerId[%d]", static_cast<int>(reinterpret_cast<intptr_t>(id)));
}

void setTimer(TimerHandle* handle, int32_t msec, int kind) {
    timer_t id = handle ? handle->load() : kNoTimer;
    if (id == kNoTimer) {
        log_dbg("invalid parameter.timerId:%d; timeMSec:%d.", -1, msec);
        return;
    }
    itimerspec spec{};
    spec.it_value.tv_sec = msec / 1000;
    spec.it_value.tv_nsec = static_cast<long>(msec % 1000) * 1000000L;
    if (kind == kTimerPeriodic) spec.it_interval = spec.it_value;
    if (timer_settime(id, 0, &spec, nullptr) != 0) {
        log_dbg("timer_settime errorr: %d - %s", errno, strerror(errno));
        return;
    }
    log_dbg("setTimer success, timerId[%d], timeMSec:%d. ", static_cast<int>(reinterpret_cast<intptr_t>(id)), msec);
}

void deleteTimer(TimerHandle* handle) {
    if (handle == nullptr) return;
    timer_t id = handle->exchange(kNoTimer);
    if (id == kNoTimer) return;
    log_dbg("delete timer.timerId:%d.", static_cast<int>(reinterpret_cast<intptr_t>(id)));
    timer_delete(id);
}
