// The flag file and the verdict property. Read on the main thread at the gate
// and by whichever thread publishes the verdict at the end (a timer thread,
// the signal thread, the monitoring thread, or a thread that faulted).
#include "usb/verdict.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include "platform/platform.hpp"
#include "process/config.hpp"
#include "usb/usb_entry.hpp"

namespace {

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};

}  // namespace

int read_file_line(char* dst, const char* path) {
    memset(dst, 0, kLineSize);
    std::unique_ptr<FILE, FileCloser> file(fopen(path, "r"));
    if (!file) {
        log_dbg("open(\"%s\") fail: %d - %s", path, errno, strerror(errno));
        return kRetResource;
    }
    char local[kLineSize] = {};
    if (fgets(local, kLineSize - 1, file.get()) == nullptr) {
        log_dbg("read fail: %d - %s", errno, strerror(errno));
        return kRetResource;
    }
    memcpy(dst, local, kLineSize - 1);  // local is terminated within its first 99 bytes
    log_dbg("read content: %s", dst);
    return 0;
}

bool amt_entry_permitted() {
    char line[kLineSize];
    if (read_file_line(line, kAmtFlagFile) != 0) return true;
    log_dbg("readed success from file(%s). flag: %s.", kAmtFlagFile, line);
    return amt_flag_permits(line[0]);
}

void amt_set_handshake_property() {
    if (config_file_st.m_usb_activate != 1) {
        log_dbg("do not set flag. m_usb_activate: %d.", static_cast<int>(config_file_st.m_usb_activate));
        return;
    }
    const char* value;
    if (amt_entry_permitted()) {
        log_dbg("permit to enter amt by handshake. ");
        value = "2";
    } else {
        log_dbg("do not permit to enter amt by handshake. ");
        value = "1";
    }
    platform::property_set(kHandshakeProperty, value);
    log_dbg("set property(%s) to %s.", kHandshakeProperty, value);
}

void amt_publish_verdict_async_safe() {
    if (config_file_st.m_usb_activate != 1) return;  // written once, before any thread
    if (g_blnPropertySet.exchange(1) != 0) return;   // lock-free: safe in a handler
    bool permitted = true;
    int fd = open(kAmtFlagFile, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char first = 0;
        ssize_t n;
        do {
            n = read(fd, &first, 1);
        } while (n < 0 && errno == EINTR);
        if (n == 1) permitted = amt_flag_permits(first);
        close(fd);
    }
    platform::log_write_async_safe(platform::kLogDebug, kLogTag,
                                   permitted ? "permit to enter amt by handshake. "
                                             : "do not permit to enter amt by handshake. ");
    platform::property_set_async_safe(kHandshakeProperty, permitted ? "2" : "1");
    platform::log_write_async_safe(platform::kLogDebug, kLogTag,
                                   permitted ? "set property(sys.tq.amt.failure.handshake) to 2."
                                             : "set property(sys.tq.amt.failure.handshake) to 1.");
}
