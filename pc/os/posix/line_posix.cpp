// The Linux half of the line: a tty or pseudo-terminal in raw mode, non-
// blocking, waited on with poll beside the stop's descriptor.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

#include "pc/os/line.hpp"

namespace pcos {

namespace {

int stop_fd_of(const Stop* stop) { return stop != nullptr ? stop->native() : -1; }

// Milliseconds left to the deadline, capped for poll; 0 or less when it passed.
long long left_ms(Deadline deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return std::min<long long>(left.count(), INT_MAX);
}

}  // namespace

Line::Line(NativeHandle handle, bool owned) : handle_(handle), owned_(owned) {}

Line::~Line() { release(); }

Line::Line(Line&& other) noexcept
    : handle_(std::exchange(other.handle_, -1)), owned_(std::exchange(other.owned_, false)) {}

Line& Line::operator=(Line&& other) noexcept {
    if (this != &other) {
        release();
        handle_ = std::exchange(other.handle_, -1);
        owned_ = std::exchange(other.owned_, false);
    }
    return *this;
}

void Line::release() {
    if (owned_ && handle_ >= 0) close(handle_);
    handle_ = -1;
    owned_ = false;
}

Line Line::borrow(NativeHandle handle) { return Line(handle, false); }

bool Line::valid() const { return handle_ >= 0; }

Line Line::open(const std::string& name, std::string* error) {
    Line line(::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), true);
    if (!line.valid()) {
        *error = "cannot open " + name + ": " + strerror(errno);
        return line;
    }
    termios tio{};
    if (tcgetattr(line.handle_, &tio) != 0) {
        *error = name + " is no terminal: " + strerror(errno);
        return Line();
    }
    cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    cfsetispeed(&tio, B115200);
    cfsetospeed(&tio, B115200);
    if (tcsetattr(line.handle_, TCSANOW, &tio) != 0) {
        *error = "cannot set raw mode on " + name + ": " + strerror(errno);
        return Line();
    }
    return line;
}

void Line::discard_input() { tcflush(handle_, TCIFLUSH); }

bool Line::write_all(std::span<const uint8_t> bytes, Deadline deadline, const Stop* stop) {
    const int stop_fd = stop_fd_of(stop);
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(handle_, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            const long long left = left_ms(deadline);
            if (left <= 0) return false;
            pollfd p[2] = {{handle_, POLLOUT, 0}, {stop_fd, POLLIN, 0}};
            if (poll(p, stop_fd >= 0 ? 2 : 1, static_cast<int>(std::min<long long>(left, 1000))) < 0 &&
                errno != EINTR) {
                return false;
            }
            if (stop_fd >= 0 && (p[1].revents & POLLIN)) return false;
            continue;
        }
        return false;
    }
    return true;
}

long Line::read_some(std::span<uint8_t> buf, Deadline deadline, const Stop* stop) {
    const int stop_fd = stop_fd_of(stop);
    for (;;) {
        const long long left = left_ms(deadline);
        if (left <= 0) return kReadTimeout;
        pollfd p[2] = {{handle_, POLLIN, 0}, {stop_fd, POLLIN, 0}};
        int ready = poll(p, stop_fd >= 0 ? 2 : 1, static_cast<int>(left));
        if (ready < 0) {
            if (errno == EINTR) continue;
            return kReadFailed;
        }
        if (ready == 0) return kReadTimeout;
        if (stop_fd >= 0 && (p[1].revents & POLLIN)) return kReadStopped;
        ssize_t n = read(handle_, buf.data(), buf.size());
        if (n > 0) return static_cast<long>(n);
        if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        // 0 bytes, or EIO on a pseudo-terminal whose other side has closed.
        return kReadFailed;
    }
}

}  // namespace pcos
