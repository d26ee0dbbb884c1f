// The Linux half of the stop: an eventfd, readable once raised, and the
// signal handler that raises it on SIGINT and SIGTERM.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

#include "pc/os/line.hpp"

namespace pcos {

namespace {

// The stop that the signal handler raises; -1 until raise_on_interrupt.
std::atomic<int> g_interrupt_fd{-1};

void raise_fd(int fd) {
    if (fd < 0) return;
    const uint64_t one = 1;
    const int saved = errno;
    // A full eventfd or pipe is raised already.
    while (write(fd, &one, sizeof(one)) < 0 && errno == EINTR) {
    }
    errno = saved;
}

void on_interrupt(int) { raise_fd(g_interrupt_fd.load(std::memory_order_relaxed)); }

}  // namespace

Stop::Stop() : Stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), true) {}

Stop::~Stop() { release(); }

Stop::Stop(Stop&& other) noexcept
    : handle_(std::exchange(other.handle_, -1)), owned_(std::exchange(other.owned_, false)) {}

Stop& Stop::operator=(Stop&& other) noexcept {
    if (this != &other) {
        release();
        handle_ = std::exchange(other.handle_, -1);
        owned_ = std::exchange(other.owned_, false);
    }
    return *this;
}

Stop Stop::borrow(NativeHandle handle) { return Stop(handle, false); }

void Stop::release() {
    if (owned_ && handle_ >= 0) close(handle_);
    handle_ = -1;
    owned_ = false;
}

bool Stop::valid() const { return handle_ >= 0; }

void Stop::raise() const { raise_fd(handle_); }

bool Stop::raised() const {
    if (handle_ < 0) return false;
    pollfd p{handle_, POLLIN, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & POLLIN) != 0;
}

bool raise_on_interrupt(const Stop& stop) {
    if (!stop.valid()) return false;
    g_interrupt_fd.store(stop.native());
    struct sigaction sa {};
    sa.sa_handler = on_interrupt;
    sigemptyset(&sa.sa_mask);
    return sigaction(SIGINT, &sa, nullptr) == 0 && sigaction(SIGTERM, &sa, nullptr) == 0;
}

}  // namespace pcos
