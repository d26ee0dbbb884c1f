// Uevents for the daemon's USB monitor, sent in the test's network namespace,
// which the phone shares; the host's own listeners never see them.
//
// A NETLINK_KOBJECT_UEVENT message with NLM_F_REQUEST sent to port 0 goes to
// the kernel, which sends it on to the namespace's uevent listeners as one of
// its own: sender port 0, "SEQNUM=<n>" appended (without a NUL behind it), at
// most 2048 bytes in all. A message that a process sends straight to the
// uevent group arrives with that process's port instead, which the daemon
// must not trust.
#pragma once

#include <string>
#include <string_view>

namespace sandbox {

// The uevent of the android_usb gadget for `state` (CONFIGURED,
// DISCONNECTED, CONNECTED...): NUL-separated strings, the last one
// "USB_STATE=<state>".
std::string usb_state_uevent(std::string_view state);

// Hands `payload` to the kernel and waits for its acknowledgement, so that on
// return the uevent is in every listener's queue. False, with the reason in
// `why`, when the kernel refused it (too long, no CAP_SYS_ADMIN).
bool send_kernel_uevent(std::string_view payload, std::string* why = nullptr);
// The same `copies` times back to back, as fast as the kernel takes them,
// with one acknowledgement awaited at the end: a burst that a listener with
// a small socket buffer cannot keep up with.
bool send_kernel_uevents(std::string_view payload, int copies, std::string* why = nullptr);

// Sends `payload` to the uevent group from this process.
bool send_user_uevent(std::string_view payload, std::string* why = nullptr);

}  // namespace sandbox
