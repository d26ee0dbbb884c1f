// A counting semaphore that a stoppable thread can wait on: an eventfd in
// semaphore mode, so that the wait can watch the thread's stop event beside it.
// Used for each channel's rcv_sem.
#pragma once

#include <cstdint>

class EventSem {
public:
    EventSem() = default;
    EventSem(const EventSem&) = delete;
    EventSem& operator=(const EventSem&) = delete;
    ~EventSem() { destroy(); }

    // Creates the semaphore with the given value; false on failure.
    bool create(uint32_t value);
    void destroy();
    void post();
    // Takes one count, waiting for it. False when the waiting thread was asked
    // to stop or the semaphore does not exist.
    bool wait();

private:
    int fd_ = -1;
};
