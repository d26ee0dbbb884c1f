// A counting semaphore that a stoppable thread can wait on: an eventfd in
// semaphore mode, so that the wait can watch the thread's stop event beside it.
// Used for each channel's rcv_sem and room_sem, and for the senders that
// wait for a row's send lock.
#pragma once

#include <atomic>
#include <cstdint>

class EventSem {
public:
    EventSem() = default;
    EventSem(const EventSem&) = delete;
    EventSem& operator=(const EventSem&) = delete;
    // No destructor: the semaphores live in listAmtSrv for the whole process,
    // and exit() runs static destructors while other threads may still use
    // them (a stop by signal can come during the start). The teardown
    // destroys them explicitly; the process end releases the rest.
    ~EventSem() = default;

    // Creates the semaphore with the given value; false on failure.
    bool create(uint32_t value);
    void destroy();
    void post();
    // Takes one count, waiting for it. False when the waiting thread was asked
    // to stop or the semaphore does not exist.
    bool wait();
    // Takes one count if one comes within timeout_ms, or returns when the
    // time is up; the caller looks again at what it waits for either way.
    // False only when the waiting thread was asked to stop. A semaphore that
    // does not exist cannot wake anybody: the wait then lasts its whole time.
    bool wait_for(uint32_t timeout_ms);

    // Whether a thread sleeps on the semaphore now. A driver of a transfer
    // thread (the fuzz targets) learns from it that the thread has taken all
    // it could and waits for more bytes.
    bool has_sleeper() const { return sleepers_.load() > 0; }

private:
    // Counts the thread in sleepers_ for the length of one sleep.
    int sleep_on(int timeout_ms);

    int fd_ = -1;
    std::atomic<int> sleepers_{0};
};
