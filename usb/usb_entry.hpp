// USB entry: with -m, the agent decides whether the phone enters AMT mode.
//
//   gate             amt_handle_init reads the flag file; a refusal ends the
//                    process (verdict "1") before any channel opens
//   wait for USB     init_for_amt_1_4: the state file says CONFIGURED, or the
//                    monitoring thread waits for the uevent (20 s time-out)
//   handshake        AA BB CC DD 7F to the PC once a second; the first bytes
//                    from the PC are the answer (20 s time-out)
//   in AMT           the picture thread and the charger switched off
//   verdict          sys.tq.amt.failure.handshake, "2" when the flag file
//                    permits at the end and "1" when it refuses, published
//                    once however the process ends
//
// The state is shared between the main thread, the receive thread of the PC
// row, the monitoring thread and timer threads. Every flag is an atomic and
// every timer handle an atomic exchange (see pub_util.hpp), so a time-out and
// the PC's first bytes can meet without a torn flag or a timer deleted twice.
#pragma once

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>

#include "process/pub_util.hpp"

constexpr const char* kAmtFlagFile = "/amt/power_usb_amt.txt";
constexpr const char* kUsbStateFile = "/sys/class/android_usb/android0/state";
constexpr const char* kHandshakeProperty = "sys.tq.amt.failure.handshake";
constexpr size_t kLineSize = 100;  // buffer of read_file_line

constexpr int32_t kUsbEnumTimeoutMs = 20000;
constexpr int32_t kHandshakeTimeoutMs = 20000;
constexpr int32_t kHandshakeIntervalMs = 1000;

// Values of g_usbState.
constexpr uint8_t kUsbStateDisconnected = 0;
constexpr uint8_t kUsbStateConfigured = 1;
constexpr uint8_t kUsbStateOther = 2;
constexpr uint8_t kUsbStateUnknown = 255;

extern std::atomic<uint8_t> g_usbState;
extern std::atomic<int8_t> g_blnEnumUSBSuccess;
extern std::atomic<int8_t> g_blnReceivePCResponse;
extern std::atomic<int8_t> g_blnPropertySet;
// Set as the first act of amt_handle_timeout_exit: the service is ending, so
// an answer of the PC that comes in the same instant is no success.
extern std::atomic<int8_t> g_blnTimeoutExit;
extern TimerHandle g_usbEnumTimer;
extern TimerHandle g_SendHandshakeTimer;
extern TimerHandle g_handShakeTimer;
extern ThreadHandle g_monitorUsbThread;
extern ThreadHandle g_loadImageThread;

// Gate and state machine (main thread, monitoring thread).
int amt_handle_init();
int init_for_amt_1_4();
void amt_handle_usb_configured();
void amt_handle_timeout_exit();

// Timer handlers.
void send_handshake_info(union sigval);
void usb_enum_timeout_proc(union sigval);
void handshake_timeout_proc(union sigval);

// The handshake step of the PC receive path: runs for every read with bytes
// on the PC row in USB mode, ahead of the ring.
void amt_handle_pc_bytes_received();
// Entry of the picture thread, started at the handshake's success.
void* amt_handle_load_image_for_handshake(void*);

// First line of a file into dst (kLineSize bytes, cleared first); 0 or -118.
int read_file_line(char* dst, const char* path);
