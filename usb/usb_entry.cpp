// The USB entry state machine: the gate at start, the wait for the gadget's
// CONFIGURED state, the handshake timers and the common end of the time-outs.
//
// Threads: amt_handle_init and init_for_amt_1_4 run on the main thread during
// the start. amt_handle_usb_configured runs there too (state file) or on the
// monitoring thread (uevent). The time-out handlers run on timer threads, one
// handler at a time (see process/timer.cpp). What they share is in
// usb_entry.hpp: atomics and exchanged timer handles, no other lock.
#include "usb/usb_entry.hpp"

#include <cerrno>
#include <cstring>

#include "process/config.hpp"
#include "process/lifecycle.hpp"
#include "usb/charger.hpp"
#include "usb/usb_monitor.hpp"
#include "usb/usb_thread.hpp"
#include "usb/verdict.hpp"

std::atomic<uint8_t> g_usbState{kUsbStateUnknown};
std::atomic<int8_t> g_blnEnumUSBSuccess{0};
std::atomic<int8_t> g_blnReceivePCResponse{0};
std::atomic<int8_t> g_blnPropertySet{0};
std::atomic<int8_t> g_blnTimeoutExit{0};
TimerHandle g_usbEnumTimer{kNoTimer};
TimerHandle g_SendHandshakeTimer{kNoTimer};
TimerHandle g_handShakeTimer{kNoTimer};
ThreadHandle g_monitorUsbThread{pthread_t{}};
ThreadHandle g_loadImageThread{pthread_t{}};

namespace {

constexpr int kExitSignalWaitMs = 2000;

// At a refusal the gate has sent SIGTERM to its own process: the signal
// thread tears down and exits with code 0. The main thread must not go on to
// the road of a failed start (code 21) meanwhile, so it waits here for that
// stop to begin and then parks. Should the signal never be taken (no signal
// thread), the start fails the ordinary way after the wait.
void await_refusal_stop() {
    for (int waited = 0; g_blnExitSignal.load() == 0 && waited < kExitSignalWaitMs; ++waited) pub_util_msleep(1);
    park_if_exiting();
}

}  // namespace

int amt_handle_init() {
    g_blnPropertySet = 0;
    log_dbg("will treat handshake.");
    amt_lib_path_init();
    g_blnReceivePCResponse = 0;
    g_blnEnumUSBSuccess = 0;
    g_blnTimeoutExit = 0;
    g_handShakeTimer = kNoTimer;
    g_usbEnumTimer = kNoTimer;
    g_SendHandshakeTimer = kNoTimer;
    if (config_file_st.m_usb_activate != 1) return 0;

    char line[kLineSize];
    if (read_file_line(line, kAmtFlagFile) == 0) {
        log_dbg("readed success from file(%s). flag: %s.", kAmtFlagFile, line);
        if (!amt_flag_permits(line[0])) {
            log_dbg("do not permit to enter amt by handshake. will exit");
            amt_handle_timeout_exit();
            await_refusal_stop();
            return kRetRefused;
        }
    }
    log_dbg("permit to enter amt by handshake.");
    return 0;
}

int init_for_amt_1_4() {
    g_usbState = kUsbStateUnknown;
    char line[kLineSize];
    if (read_file_line(line, kUsbStateFile) == 0) {
        log_dbg("readed success from file(%s). value: %s.", kUsbStateFile, line);
        // Already configured: the state file is all the USB information the
        // service gets; no monitoring thread, no enumeration time-out.
        if (strstr(line, "CONFIGURED") != nullptr) {
            amt_handle_usb_configured();
            return 0;
        }
    }
    createTimer(&g_usbEnumTimer, usb_enum_timeout_proc);
    setTimer(&g_usbEnumTimer, kUsbEnumTimeoutMs, kTimerOneShot);
    int err = amt_start_usb_thread(&g_monitorUsbThread, amt_handle_monitor_usb_loop);
    if (err != 0) {
        log_dbg("pthread_create(): %d - %s", err, strerror(err));
        g_monitorUsbThread = pthread_t{};
        return kRetResource;
    }
    return 0;
}

void amt_handle_usb_configured() {
    g_usbState = kUsbStateConfigured;
    log_dbg("amt_handle_monitor_usb_loop get usb CONFIGURED event");
    deleteTimer(&g_usbEnumTimer);
    g_blnEnumUSBSuccess = 1;
    // Made anew on each CONFIGURED: the 20 s start again. The first handshake
    // goes out one period after CONFIGURED, not at once.
    createTimer(&g_SendHandshakeTimer, send_handshake_info);
    setTimer(&g_SendHandshakeTimer, kHandshakeIntervalMs, kTimerPeriodic);
    createTimer(&g_handShakeTimer, handshake_timeout_proc);
    setTimer(&g_handShakeTimer, kHandshakeTimeoutMs, kTimerOneShot);
}

void usb_enum_timeout_proc(union sigval) {
    log_dbg("usb enum timeout. time:%d seconds.", kUsbEnumTimeoutMs / 1000);
    amt_handle_timeout_exit();
}

void handshake_timeout_proc(union sigval) {
    log_dbg("timeout. time:%d seconds.", kHandshakeTimeoutMs / 1000);
    amt_handle_timeout_exit();
}

// The common end of the two time-outs and of a refusal at the gate. The
// periodic handshake timer is left running: the teardown deletes it.
void amt_handle_timeout_exit() {
    g_blnTimeoutExit = 1;
    amt_set_handshake_property();
    g_blnPropertySet = 1;
    deleteTimer(&g_usbEnumTimer);
    deleteTimer(&g_handShakeTimer);
    pub_util_send_exit_signal();
}
