#include "channel/event_sem.hpp"

#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "process/pub_util.hpp"

namespace {

// One count, if there is one: 1 taken, 0 none, -1 the read failed otherwise.
int take(int fd) {
    uint64_t value = 0;
    if (read(fd, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value))) return 1;
    return errno == EAGAIN || errno == EINTR ? 0 : -1;
}

}  // namespace

bool EventSem::create(uint32_t value) {
    destroy();
    fd_ = eventfd(value, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
    return fd_ >= 0;
}

void EventSem::destroy() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

void EventSem::post() {
    if (fd_ < 0) return;
    uint64_t one = 1;
    ssize_t n = write(fd_, &one, sizeof(one));
    (void)n;  // a counter at its limit already wakes the reader
}

int EventSem::sleep_on(int timeout_ms) {
    sleepers_.fetch_add(1);
    int r = pub_util_wait_fd(fd_, POLLIN, timeout_ms);
    sleepers_.fetch_sub(1);
    return r;
}

bool EventSem::wait() {
    if (fd_ < 0) return false;
    for (;;) {
        int t = take(fd_);
        if (t != 0) return t > 0;
        int r = sleep_on(-1);
        if (r == kWaitStopped || r < 0) return false;
    }
}

bool EventSem::wait_for(uint32_t timeout_ms) {
    if (fd_ < 0) return pub_util_msleep(timeout_ms);
    if (take(fd_) > 0) return true;
    int r = sleep_on(static_cast<int>(timeout_ms));
    if (r == kWaitStopped) return false;
    if (r > 0) take(fd_);  // a count another waiter took first is no harm: the caller looks again
    return true;
}
