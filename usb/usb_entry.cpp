// The USB entry logic: the gate at start, the handshake state and the verdict
// published at the end.
#include "usb/usb_entry.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/platform.hpp"
#include "process/config.hpp"

std::atomic<uint8_t> g_usbState{255};
std::atomic<int8_t> g_blnEnumUSBSuccess{0};
std::atomic<int8_t> g_blnReceivePCResponse{0};
std::atomic<int8_t> g_blnPropertySet{0};
TimerHandle g_usbEnumTimer{kNoTimer};
TimerHandle g_SendHandshakeTimer{kNoTimer};
TimerHandle g_handShakeTimer{kNoTimer};
ThreadHandle g_monitorUsbThread{pthread_t{}};
ThreadHandle g_loadImageThread{pthread_t{}};

namespace {

constexpr size_t kLineSize = 100;

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};

// The flag file permits entry unless its first character is not a digit 1-9.
// A file that is missing or empty permits.
bool amt_entry_permitted() {
    char line[kLineSize];
    if (read_file_line(line, kAmtFlagFile) != 0) return true;
    log_dbg("readed success from file(%s). flag: %s.", kAmtFlagFile, line);
    line[1] = '\0';
    return atoi(line) != 0;
}

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

int amt_handle_init() {
    g_blnPropertySet = 0;
    log_dbg("will treat handshake.");
    g_blnReceivePCResponse = 0;
    g_blnEnumUSBSuccess = 0;
    g_handShakeTimer = kNoTimer;
    g_usbEnumTimer = kNoTimer;
    g_SendHandshakeTimer = kNoTimer;
    // The flag-file gate of USB mode comes with the USB entry logic.
    return 0;
}

int init_for_amt_1_4() {
    // The USB state machine (state file, monitoring, handshake timers) comes
    // with the USB entry logic; for now the service runs without it.
    g_usbState = 255;
    return 0;
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

void amt_handle_pc_bytes_received() {
    // Bytes from the PC prove the enumeration and answer the handshake; the
    // timers and the picture that this drives come with the USB entry logic.
    g_blnEnumUSBSuccess = 1;
}
