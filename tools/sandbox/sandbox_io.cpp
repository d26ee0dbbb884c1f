#include "sandbox_io.hpp"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace sandbox {
namespace {

using Clock = std::chrono::steady_clock;

// Waits for `events` on `fd` until `deadline`; false on time-out or error.
bool wait_for(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now()).count();
        if (left < 0) left = 0;
        pollfd p{fd, events, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r > 0) return true;
        if (r == 0) return false;
        if (errno != EINTR) return false;
    }
}

}  // namespace

bool write_all(int fd, std::span<const uint8_t> bytes, Millis timeout) {
    auto deadline = Clock::now() + timeout;
    size_t done = 0;
    while (done < bytes.size()) {
        if (!wait_for(fd, POLLOUT, deadline)) return false;
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

std::optional<Bytes> read_exact(int fd, size_t n, Millis timeout) {
    auto deadline = Clock::now() + timeout;
    Bytes out(n);
    size_t done = 0;
    while (done < n) {
        if (!wait_for(fd, POLLIN, deadline)) return std::nullopt;
        ssize_t r = ::read(fd, out.data() + done, n - done);
        if (r == 0) return std::nullopt;
        if (r < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return std::nullopt;
        }
        done += static_cast<size_t>(r);
    }
    return out;
}

bool quiet_for(int fd, Millis window) {
    return !wait_for(fd, POLLIN, Clock::now() + window);
}

std::string read_to_end(int fd) {
    std::string text;
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n > 0) {
            text.append(buf, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            return text;
        }
    }
}

}  // namespace sandbox
