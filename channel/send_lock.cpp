#include "channel/send_lock.hpp"

#include <cerrno>
#include <cstring>

#include "process/pub_util.hpp"

bool SendLock::lock() {
    int expected = 0;
    if (state_.compare_exchange_strong(expected, 1)) return true;
    for (;;) {
        if (state_.exchange(2) == 0) return true;
        if (!wake_.wait()) return false;
    }
}

void SendLock::unlock() {
    if (state_.exchange(0) == 2) wake_.post();
}

SendLock& channel_send_lock(uint32_t index) {
    static SendLock locks[2];
    static const bool created = [] {
        bool ok = locks[0].create() && locks[1].create();
        if (!ok) log_dbg("send locks: eventfd error:%d-%s", errno, strerror(errno));
        return ok;
    }();
    (void)created;  // without its eventfd a sender that finds the lock taken fails with -1
    return locks[index > 1 ? 1 : index];
}
