// The utility layer: logging, timers, stopping one thread, the bounded-retry
// write, raw serial mode and the line reader.
//
// Stopping a thread. Every thread that can be stopped (channel threads, the USB
// threads) is started by pub_util_create_thread, which registers an eventfd for
// the thread before it runs. pub_util_kill_thread() sets that event. Every blocking wait of such a
// thread goes through the waits below, which watch the event beside the
// descriptor, semaphore or clock they wait on; once the event is set, they all
// return "stopped" at once and keep doing so, so the thread unwinds through its
// normal returns and its RAII owners release what it held. A thread that is not
// registered (main, timer threads) simply waits.
#pragma once

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <pthread.h>

constexpr const char* kLogTag = "OVTA_AMT";
constexpr size_t kLogBufSize = 1025;  // the formatter may use 1024 bytes of it

void log_err(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void log_dbg(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Verbose switch, copied from the configuration at start-up (see config.hpp).
extern std::atomic<uint32_t> OUTPUT_MORE_LOG;
inline bool verbose_log() { return OUTPUT_MORE_LOG.load(std::memory_order_relaxed) != 0; }

// Hex dump in the one form the log uses: a label, then "0x%02x, " per byte,
// into a text of at most text_size bytes (terminator included).
void pub_util_log_hex(const char* label, const uint8_t* data, size_t count, size_t text_size);

// ---- Timers -----------------------------------------------------------------
// A timer runs its handler on a thread of its own at each expiry, never on the
// thread that armed it (a timerfd on CLOCK_REALTIME, waited on by a detached
// thread that the timer owns). A handle holds kNoTimer or a live timer. Handles
// are shared between the receive thread, the monitoring thread and timer
// threads, so each change is one atomic exchange: a timer is deleted once and
// its handle ends at kNoTimer. Handlers run one at a time and must not block.
// Once deleteTimer has returned, the handler of the deleted timer does not run
// again, and none still runs (unless the caller is that handler: a handler may
// delete its own timer, or another one).
struct AmtTimer;
using TimerHandle = std::atomic<AmtTimer*>;
constexpr AmtTimer* kNoTimer = nullptr;
using TimerProc = void (*)(union sigval);
constexpr int kTimerOneShot = 1;
constexpr int kTimerPeriodic = 2;

void createTimer(TimerHandle* handle, TimerProc proc);
void setTimer(TimerHandle* handle, int32_t msec, int kind);
void deleteTimer(TimerHandle* handle);
// The numeric id of a handle for log lines, -1 for none.
long timer_log_id(const TimerHandle* handle);

// ---- Threads ----------------------------------------------------------------
using ThreadHandle = std::atomic<pthread_t>;  // 0 when there is no thread

// Starts proc(arg) on a new thread that can be stopped: its stop event is made
// and noted under the thread's id before the thread runs. Returns 0 with the id
// in *tid, or an error number (no event could be made, the table of stoppable
// threads is full, or pthread_create failed): no thread then runs.
int pub_util_create_thread(pthread_t* tid, void* (*proc)(void*), void* arg, bool detached);

// Makes the calling thread stoppable for the scope's life, for a thread that
// was not started by pub_util_create_thread (the tests' own threads). Without
// a free slot the thread stays unstoppable and logs it.
class ThreadStopScope {
public:
    ThreadStopScope();
    ~ThreadStopScope();
    ThreadStopScope(const ThreadStopScope&) = delete;
    ThreadStopScope& operator=(const ThreadStopScope&) = delete;

private:
    bool owns_ = false;  // false for a thread that was stoppable already
};

// Asks the thread to stop and gives it 10 ms. Returns 0, or the error number of
// a failed request (the handle then stays as it was). A handle of 0, or a thread
// that has already ended, gives 0 and leaves the handle as it is.
int pub_util_kill_thread(ThreadHandle* handle);

// Run on the thread that was asked to stop, as it winds up: for SIGUSR1 it logs
// "thread %d will be end"; any other number is logged as unknown.
void pub_util_handle_thread_signal(int sig);

// True once this thread was asked to stop.
bool pub_util_stop_requested();

// Sleeps; false when the thread was asked to stop (at once, or during the sleep).
bool pub_util_msleep(uint32_t msec);

constexpr int kWaitStopped = -2;
// Waits until fd is ready for events (POLLIN/POLLOUT). Returns 1 ready (also on
// hang-up or error of fd, which the following call reports), 0 on time-out,
// kWaitStopped on a stop, -1 when poll itself fails. timeout_ms -1 waits for ever.
int pub_util_wait_fd(int fd, short events, int timeout_ms);

// Ends the service the way every internal end does: SIGTERM to the own process.
void pub_util_send_exit_signal();

// ---- Devices ----------------------------------------------------------------
int write_to_device(int fd, const void* buf, uint32_t len);
int set_serial_dev_attr(int fd);
int read_line(FILE* stream, char* buf, int size, int32_t* len, uint8_t* end_flag);

// Result codes shared by the whole program.
constexpr int kRetGeneral = -1;
constexpr int kRetRefused = -100;
constexpr int kRetInvalidParam = -101;
constexpr int kRetNullArg = -102;
constexpr int kRetBadSize = -103;
constexpr int kRetNotMounted = -104;
constexpr int kRetResource = -118;
constexpr int kRetRingAlloc = -120;
