#include "channel/event_sem.hpp"

#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "process/pub_util.hpp"

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

bool EventSem::wait() {
    if (fd_ < 0) return false;
    for (;;) {
        uint64_t value = 0;
        if (read(fd_, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value))) return true;
        if (errno != EAGAIN && errno != EINTR) return false;
        int r = pub_util_wait_fd(fd_, POLLIN, -1);
        if (r == kWaitStopped || r < 0) return false;
    }
}
