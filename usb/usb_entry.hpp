// USB entry: the state that the handshake with the PC shares between the
// receive thread of the PC row, the USB monitoring thread and timer threads.
// Every flag is an atomic and every timer handle an atomic exchange, so a
// time-out and the PC's first bytes can meet without a torn flag or a timer
// deleted twice.
#pragma once

#include <atomic>
#include <cstdint>

#include "process/pub_util.hpp"

constexpr const char* kAmtFlagFile = "/amt/power_usb_amt.txt";
constexpr const char* kHandshakeProperty = "sys.tq.amt.failure.handshake";

extern std::atomic<uint8_t> g_usbState;
extern std::atomic<int8_t> g_blnEnumUSBSuccess;
extern std::atomic<int8_t> g_blnReceivePCResponse;
extern std::atomic<int8_t> g_blnPropertySet;
extern TimerHandle g_usbEnumTimer;
extern TimerHandle g_SendHandshakeTimer;
extern TimerHandle g_handShakeTimer;
extern ThreadHandle g_monitorUsbThread;
extern ThreadHandle g_loadImageThread;

int amt_handle_init();
int init_for_amt_1_4();
int read_file_line(char* dst, const char* path);
void amt_set_handshake_property();

// The handshake step of the PC receive path: runs for every read with bytes
// on the PC row in USB mode, ahead of the ring.
void amt_handle_pc_bytes_received();
