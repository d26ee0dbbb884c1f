// Stopping one thread without signals.
//
// Each stoppable thread owns an eventfd (its stop event) and a flag in a small
// table keyed by its pthread id. pub_util_create_thread makes them before the
// thread exists, so a stop can never miss a thread that has not yet reached its
// first wait, and a thread that cannot have a stop event is not started at all; pub_util_kill_thread sets the flag, then
// the event. All blocking waits of the thread poll that event beside what they
// wait for, so a thread blocked in a read, an accept, a semaphore wait or a
// sleep returns at once and unwinds through its own returns. The event stays
// set: every later wait of the thread returns "stopped" too, so the way out
// cannot block again. The flag answers pub_util_stop_requested, which the byte
// paths ask several times per message, without a system call.
//
// The table is guarded by a mutex; a thread leaves it just before it ends, so a
// kill never touches the id of a thread that is gone, and a thread without a
// slot has ended: its join returns.
#include "process/pub_util.hpp"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr size_t kMaxStoppable = 32;

using ThreadProc = void* (*)(void*);

struct StopSlot {
    pthread_t tid{};
    int event_fd = -1;  // -1: slot free
    std::atomic<bool> flag{false};
    ThreadProc proc = nullptr;  // what a thread started here runs
    void* arg = nullptr;
};

std::mutex g_stop_lock;
StopSlot g_stop_slots[kMaxStoppable];  // guarded by g_stop_lock (flag: atomic)

thread_local int t_stop_fd = -1;
thread_local bool t_stopped = false;
// The flag of the calling thread's slot; the slot stays the thread's until the
// thread leaves the table (under the lock), just before it ends.
thread_local std::atomic<bool>* t_stop_flag = nullptr;

// Takes a free slot for a new stop event; the caller holds g_stop_lock.
// Returns the slot's index, or -1 (with the error number in *err) when no
// event can be made or the table is full.
int take_slot(int* err) {
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        *err = errno;
        log_err("stop event of a thread: eventfd error:%d-%s", *err, strerror(*err));
        return -1;
    }
    for (size_t i = 0; i < kMaxStoppable; ++i) {
        StopSlot& s = g_stop_slots[i];
        if (s.event_fd < 0) {
            s.event_fd = fd;
            s.flag = false;
            s.tid = pthread_t{};
            return static_cast<int>(i);
        }
    }
    close(fd);
    *err = EAGAIN;
    log_err("stop event of a thread: table full (%zu threads)", kMaxStoppable);
    return -1;
}

// The caller holds g_stop_lock.
void free_slot(StopSlot& s) {
    close(s.event_fd);
    s.event_fd = -1;
    s.tid = pthread_t{};
    s.proc = nullptr;
    s.arg = nullptr;
}

void adopt_slot(StopSlot& s) {
    t_stop_fd = s.event_fd;
    t_stop_flag = &s.flag;
    t_stopped = false;
}

void leave_slot() {
    if (t_stop_fd < 0) return;
    std::lock_guard<std::mutex> hold(g_stop_lock);
    for (auto& s : g_stop_slots) {
        if (s.event_fd == t_stop_fd) free_slot(s);
    }
    t_stop_fd = -1;
    t_stop_flag = nullptr;
}

// Leaves the table however the thread's procedure ends.
struct SlotLeaver {
    ~SlotLeaver() { leave_slot(); }
};

void* stoppable_thread_main(void* index_arg) {
    StopSlot& slot = g_stop_slots[reinterpret_cast<uintptr_t>(index_arg)];
    ThreadProc proc = nullptr;
    void* arg = nullptr;
    {
        // Waits for the creator to note the thread's id in the slot.
        std::lock_guard<std::mutex> hold(g_stop_lock);
        adopt_slot(slot);
        proc = slot.proc;
        arg = slot.arg;
    }
    SlotLeaver leaver;
    return proc(arg);
}

}  // namespace

int pub_util_create_thread(pthread_t* tid, void* (*proc)(void*), void* arg, bool detached) {
    std::lock_guard<std::mutex> hold(g_stop_lock);
    int err = 0;
    int index = take_slot(&err);
    if (index < 0) return err;
    StopSlot& slot = g_stop_slots[index];
    slot.proc = proc;
    slot.arg = arg;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    if (detached) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t made{};
    err = pthread_create(&made, &attr, stoppable_thread_main, reinterpret_cast<void*>(static_cast<uintptr_t>(index)));
    pthread_attr_destroy(&attr);
    if (err != 0) {
        free_slot(slot);
        return err;
    }
    slot.tid = made;
    *tid = made;
    return 0;
}

ThreadStopScope::ThreadStopScope() {
    if (t_stop_fd >= 0) return;
    std::lock_guard<std::mutex> hold(g_stop_lock);
    int err = 0;
    int index = take_slot(&err);
    if (index < 0) return;
    g_stop_slots[index].tid = pthread_self();
    adopt_slot(g_stop_slots[index]);
    owns_ = true;
}

ThreadStopScope::~ThreadStopScope() {
    if (owns_) leave_slot();
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
        // Every stoppable thread holds its slot from before it runs until just
        // before it ends: no slot means the thread has ended.
        if (slot == nullptr) return 0;
        slot->flag.store(true);
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
    if (!t_stopped && t_stop_flag != nullptr && t_stop_flag->load()) t_stopped = true;
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
