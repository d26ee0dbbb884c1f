// The bounded-retry write, raw serial mode and the line reader.
#include "process/pub_util.hpp"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr uint32_t kWriteWaitMs = 10;                 // one wait for room
constexpr int64_t kWriteWaitBudgetNs = 1000000000LL;  // a whole second of waiting in all

int64_t monotonic_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

}  // namespace

// Channel descriptors are non-blocking. When the line takes only part of the
// bytes, or none, the write waits until the descriptor is writable again, at
// most 10 ms per wait, and goes on at once when it is: a line that drains
// quickly costs no timer. A write that fails for any other reason cannot be
// helped by waiting for room (the descriptor would report ready at once), so
// it backs off 10 ms before its next try. Either way the time spent waiting
// adds up, and after a whole second of it the write gives up with the bytes
// still unsent in its log line, returning 0 like a success. A stop of the
// calling thread ends the wait at once and takes the same way out.
int write_to_device(int fd, const void* buf, uint32_t len) {
    if (fd <= 0) {
        log_dbg("fd(%d) is not valid.", fd);
        return -1;
    }
    if (buf == nullptr) {
        log_dbg("buf_ptr is null");
        return -1;
    }
    if (len == 0) {
        log_dbg("buf_len(%d) is not valid.", static_cast<int>(len));
        return -1;
    }
    const auto* p = static_cast<const uint8_t*>(buf);
    uint32_t left = len;
    int64_t waited_ns = 0;
    for (;;) {
        ssize_t n = write(fd, p, left);
        if (n >= 0 && static_cast<uint32_t>(n) == left) return 0;
        if (n < 0 && errno == EINTR) continue;
        bool no_room = n >= 0 || errno == EAGAIN || errno == EWOULDBLOCK;
        if (n > 0) {
            p += n;
            left -= static_cast<uint32_t>(n);
        }
        int64_t start = monotonic_ns();
        bool stopped;
        if (no_room) {
            stopped = pub_util_wait_fd(fd, POLLOUT, static_cast<int>(kWriteWaitMs)) == kWaitStopped;
        } else {
            stopped = !pub_util_msleep(kWriteWaitMs);
        }
        waited_ns += monotonic_ns() - start;
        if (stopped || waited_ns >= kWriteWaitBudgetNs) break;
    }
    log_dbg("write to device failure (timeout) len_tmp:%d, fd:%d.", static_cast<int>(left), fd);
    return 0;
}

int set_serial_dev_attr(int fd) {
    termios tio{};
    int r = tcgetattr(fd, &tio);
    if (r != 0) {
        log_dbg("set_serial_dev_attr tcgetattr error:%d-%s. fd:%d.", errno, strerror(errno), fd);
        return r;
    }
    r = cfsetispeed(&tio, B115200);
    if (r != 0) {
        log_dbg("set_serial_dev_attr cfsetispeed error:%d-%s. fd:%d.", errno, strerror(errno), fd);
        return r;
    }
    r = cfsetospeed(&tio, B115200);
    if (r != 0) {
        log_dbg("set_serial_dev_attr cfsetospeed error:%d-%s. fd:%d.", errno, strerror(errno), fd);
        return r;
    }
    tio.c_iflag &= ~static_cast<tcflag_t>(INLCR | ICRNL | IXON);
    tio.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    tio.c_lflag = 0;
    r = tcsetattr(fd, TCSANOW, &tio);
    if (r != 0) {
        log_dbg("set_serial_dev_attr tcsetattr error:%d-%s. fd:%d.", errno, strerror(errno), fd);
        return r;
    }
    return 0;
}

int read_line(FILE* stream, char* buf, int size, int32_t* len, uint8_t* end_flag) {
    if (stream == nullptr || buf == nullptr || len == nullptr || end_flag == nullptr) return kRetInvalidParam;
    *len = 0;
    *end_flag = 0;
    if (size <= 1) return kRetInvalidParam;
    memset(buf, 0, static_cast<size_t>(size));
    if (feof(stream)) {
        *end_flag = 1;
        return 0;
    }
    if (fgets(buf, size - 1, stream) != nullptr) *len = static_cast<int32_t>(strlen(buf));
    return 0;
}
