// The USB monitoring thread and the pieces of its work that need no socket:
// finding the USB state in a uevent and telling which state it is.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

constexpr size_t kUeventBufSize = 2048;
constexpr int kUeventRcvBuf = 1024;

// Entry of the monitoring thread, started by init_for_amt_1_4.
void* amt_handle_monitor_usb_loop(void*);

// A uevent is a run of NUL-terminated strings. Returns the first non-empty
// string that contains "USB_STATE", or an empty view. The walk stays within
// the bytes received: a last string that the buffer cuts off (no NUL behind
// it) is taken as it stands, up to the last byte.
std::string_view uevent_usb_state_string(std::span<const char> message);

enum class UsbStateEvent { kDisconnected, kConfigured, kOther };

// "DISCONNECTED" is tested first, since it contains "CONNECTED"; a text with
// neither word, "CONNECTED" among them, is another state.
UsbStateEvent usb_state_event_of(std::string_view text);
