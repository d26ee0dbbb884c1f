#include "pc/lib/serial_port.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <cstdint>

namespace tools {

UniqueFd open_raw_serial(const std::string& path, std::string* error) {
    UniqueFd fd(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) {
        *error = "cannot open " + path + ": " + strerror(errno);
        return fd;
    }
    termios tio{};
    if (tcgetattr(fd.get(), &tio) != 0) {
        *error = path + " is no terminal: " + strerror(errno);
        return UniqueFd();
    }
    cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    cfsetispeed(&tio, B115200);
    cfsetospeed(&tio, B115200);
    if (tcsetattr(fd.get(), TCSANOW, &tio) != 0) {
        *error = "cannot set raw mode on " + path + ": " + strerror(errno);
        return UniqueFd();
    }
    return fd;
}

bool write_all(int fd, std::span<const uint8_t> bytes, Deadline deadline, int stop_fd) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd p[2] = {{fd, POLLOUT, 0}, {stop_fd, POLLIN, 0}};
            if (poll(p, stop_fd >= 0 ? 2 : 1, static_cast<int>(std::min<long long>(left.count(), 1000))) < 0 &&
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

long read_some(int fd, std::span<uint8_t> buf, Deadline deadline, int stop_fd) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return 0;
        pollfd p[2] = {{fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
        int ready = poll(p, stop_fd >= 0 ? 2 : 1, static_cast<int>(std::min<long long>(left.count(), INT32_MAX)));
        if (ready < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (ready == 0) return 0;
        if (stop_fd >= 0 && (p[1].revents & POLLIN)) return kStopped;
        ssize_t n = read(fd, buf.data(), buf.size());
        if (n > 0) return static_cast<long>(n);
        if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        // 0 bytes, or EIO on a pseudo-terminal whose other side has closed.
        return -1;
    }
}

bool write_all(int fd, std::span<const uint8_t> bytes) { return write_all(fd, bytes, Deadline::max()); }

}  // namespace tools
