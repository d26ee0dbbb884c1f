// The bounded-retry write, raw serial mode and the line reader.
#include "process/pub_util.hpp"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {
constexpr int kWriteTries = 100;
constexpr uint32_t kWriteBackoffMs = 10;
}  // namespace

// Channel descriptors are non-blocking, so a peer that does not drain its side
// cannot block a sender beyond the reach of its stop event: a full descriptor
// is waited for (without using up the budget), a stop ends the wait. Every
// other failure and every partial write costs one of the 100 tries and 10 ms.
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
    int tries = kWriteTries;
    while (tries > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            int w = pub_util_wait_fd(fd, POLLOUT, -1);
            if (w == kWaitStopped) break;
            if (w > 0) continue;
        }
        if (n >= 0 && static_cast<uint32_t>(n) == left) return 0;
        if (n > 0) {
            p += n;
            left -= static_cast<uint32_t>(n);
        }
        --tries;
        if (!pub_util_msleep(kWriteBackoffMs)) break;
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
