// The single-instance lock: a whole-file write lock on /tmp/ovta-amt.pid, held
// by a descriptor that stays open for the life of the process. The file stays
// empty; the lock goes with the process.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "process/lifecycle.hpp"
#include "process/pub_util.hpp"

int check_pid_file(const char* path) {
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        log_dbg("can't open %s: %s", path, strerror(errno));
        return -1;
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    if (fcntl(fd, F_SETLK, &lock) == 0) return 0;  // fd stays open: it holds the lock
    int err = errno;
    if (err == EACCES || err == EAGAIN) {
        log_dbg("pid_file error %s: %s", path, strerror(err));
        close(fd);
        return 1;
    }
    log_dbg("can't lock %s: %s", path, strerror(err));
    close(fd);
    return -1;
}
