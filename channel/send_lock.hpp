// The send lock of a row. Both transfer threads may send on one row at once;
// the lock keeps each message whole on the wire instead of interleaving its
// pieces with another's. A sender can hold it for as long as its write waits
// for the peer (at most about a second, see write_to_device), so a second
// sender sleeps until the lock is given back, with no polling, and a stop
// ends that sleep at once.
//
// An uncontended lock and unlock is one atomic operation each; only a sender
// that finds the lock taken sleeps, on an eventfd that the holder posts when
// it lets go (the holder knows, because the sleeper marked the lock first).
#pragma once

#include <atomic>
#include <cstdint>

#include "channel/event_sem.hpp"

class SendLock {
public:
    // Creates the eventfd that contended senders sleep on; false on failure.
    bool create() { return wake_.create(0); }
    // Takes the lock, sleeping while another sender has it. False when the
    // waiting thread was asked to stop first (or cannot sleep: no eventfd).
    bool lock();
    void unlock();

private:
    // 0 free, 1 held, 2 held and a sender may sleep on wake_. A sleeper sets
    // 2 before it sleeps and the holder posts when it leaves 2 behind, so no
    // wake-up is lost; a post nobody takes only makes a later wait look again.
    std::atomic<int> state_{0};
    EventSem wake_;
};

// The lock of row index 0 or 1. It lives as long as the process, so a sender
// after the teardown still finds it.
SendLock& channel_send_lock(uint32_t index);

// Holds the lock of a row from a successful wait to the end of its scope.
class SendLockHold {
public:
    explicit SendLockHold(SendLock& lock) : lock_(lock), held_(lock.lock()) {}
    ~SendLockHold() {
        if (held_) lock_.unlock();
    }
    SendLockHold(const SendLockHold&) = delete;
    SendLockHold& operator=(const SendLockHold&) = delete;

    // False when the waiting thread was asked to stop first.
    bool held() const { return held_; }

private:
    SendLock& lock_;
    bool held_;
};
