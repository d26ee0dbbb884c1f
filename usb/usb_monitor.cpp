// The USB monitoring thread: listens to the kernel's uevents and turns the
// USB gadget's state changes into events of the USB entry state machine.
//
// Thread: amt_handle_monitor_usb_loop runs on a detached thread of its own,
// started by init_for_amt_1_4 only when the state file did not say
// CONFIGURED. It owns the netlink socket and the message buffer (on its
// stack). It writes g_usbState and g_blnEnumUSBSuccess (atomics) and, through
// amt_handle_usb_configured, the timer handles (exchanged). Its one wait is
// pub_util_wait_fd on the socket and its stop event: it sleeps while nothing
// happens, and a stop from the teardown ends the wait at once; the socket
// closes as the thread returns.
//
// Only uevents sent by the kernel count (sender port 0), as with the
// platform's own uevent daemon: any process may send to the uevent group.
// The socket's buffer is small, so uevents can be lost to an overflow
// (ENOBUFS); the state file is then read again, so a pulled cable is never
// missed. At DISCONNECTED the thread ends the process: the teardown, through
// the same run-once guard as the signal road, then SIGTERM.
#include "usb/usb_monitor.hpp"

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "process/lifecycle.hpp"
#include "process/pub_util.hpp"
#include "usb/usb_entry.hpp"
#include "usb/usb_thread.hpp"

namespace {

constexpr uint32_t kUeventGroup = 1;  // the kernel's uevent group
constexpr uint32_t kErrorBackoffMs = 10;

class UeventSocket {
public:
    UeventSocket() = default;
    ~UeventSocket() { reset(); }
    UeventSocket(const UeventSocket&) = delete;
    UeventSocket& operator=(const UeventSocket&) = delete;

    // Creates and binds the socket; false (logged) when that fails.
    bool open() {
        fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
        if (fd_ < 0) {
            log_dbg("amt_handle_monitor_usb_loop socket error:%d-%s.", errno, strerror(errno));
            return false;
        }
        int size = kUeventRcvBuf;
        if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) != 0) {
            log_dbg("amt_handle_monitor_usb_loop SO_RCVBUF error:%d-%s.", errno, strerror(errno));
        }
        sockaddr_nl addr{};
        addr.nl_family = AF_NETLINK;
        addr.nl_pid = static_cast<uint32_t>(getpid());
        addr.nl_groups = kUeventGroup;
        auto* sa = reinterpret_cast<sockaddr*>(&addr);
        if (bind(fd_, sa, sizeof(addr)) == 0) return true;
        if (errno == EADDRINUSE) {
            // The port of the process id is taken by another socket of this
            // network: let the kernel choose one.
            addr.nl_pid = 0;
            if (bind(fd_, sa, sizeof(addr)) == 0) return true;
        }
        log_dbg("amt_handle_monitor_usb_loop bind error:%d-%s.", errno, strerror(errno));
        return false;
    }
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

void handle_usb_state(UsbStateEvent event) {
    switch (event) {
        case UsbStateEvent::kDisconnected:
            g_usbState = kUsbStateDisconnected;
            log_dbg("amt_handle_monitor_usb_loop get usb disconnect event");
            g_blnEnumUSBSuccess = 0;
            break;
        case UsbStateEvent::kConfigured:
            amt_handle_usb_configured();
            break;
        case UsbStateEvent::kOther:
            g_usbState = kUsbStateOther;
            log_dbg("amt_handle_monitor_usb_loop get usb other status event");
            break;
    }
}

// After an overflow of the socket's buffer: the lost uevents may have said
// anything, so the state file says where the gadget stands now. A state that
// is the one already known changes nothing (a running handshake goes on).
void recover_lost_uevents() {
    log_dbg("amt_handle_monitor_usb_loop lost uevents (socket buffer full), reading %s again.", kUsbStateFile);
    char line[kLineSize];
    if (read_file_line(line, kUsbStateFile) != 0) return;
    log_dbg("readed success from file(%s). value: %s.", kUsbStateFile, line);
    UsbStateEvent event = usb_state_event_of(line);
    uint8_t known = g_usbState;
    if (event == UsbStateEvent::kConfigured && known == kUsbStateConfigured) return;
    if (event == UsbStateEvent::kOther && known == kUsbStateOther) return;
    handle_usb_state(event);
}

// One datagram into buf, without waiting; its sender's port in *sender.
ssize_t receive_uevent(int fd, char (&buf)[kUeventBufSize], uint32_t* sender) {
    sockaddr_nl from{};
    iovec iov{buf, sizeof(buf)};
    msghdr msg{};
    msg.msg_name = &from;
    msg.msg_namelen = sizeof(from);
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    ssize_t n = recvmsg(fd, &msg, MSG_DONTWAIT);
    *sender = from.nl_pid;
    return n;
}

void* monitor_stopped() {
    pub_util_handle_thread_signal(SIGUSR1);
    amt_usb_thread_ending(&g_monitorUsbThread);
    return nullptr;
}

}  // namespace

std::string_view uevent_usb_state_string(std::span<const char> message) {
    size_t pos = 0;
    while (pos < message.size()) {
        const char* start = message.data() + pos;
        size_t len = strnlen(start, message.size() - pos);
        std::string_view text(start, len);
        if (len > 0 && text.find("USB_STATE") != std::string_view::npos) return text;
        pos += len + 1;
    }
    return {};
}

UsbStateEvent usb_state_event_of(std::string_view text) {
    if (text.find("DISCONNECTED") != std::string_view::npos) return UsbStateEvent::kDisconnected;
    if (text.find("CONFIGURED") != std::string_view::npos) return UsbStateEvent::kConfigured;
    return UsbStateEvent::kOther;
}

void* amt_handle_monitor_usb_loop(void*) {
    UeventSocket sock;
    if (!sock.open()) {
        log_dbg("amt_handle_monitor_usb_loop has no uevent socket: no USB event will be seen.");
        amt_usb_thread_ending(&g_monitorUsbThread);
        return nullptr;
    }
    log_dbg("amt_handle_monitor_usb_loop listening for uevents.");
    char buf[kUeventBufSize];
    uint32_t sender = 0;
    while (g_usbState != kUsbStateDisconnected) {
        int w = pub_util_wait_fd(sock.get(), POLLIN, -1);
        if (w == kWaitStopped) return monitor_stopped();
        ssize_t n = w < 0 ? -1 : receive_uevent(sock.get(), buf, &sender);
        if (n < 0) {
            if (w >= 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) continue;
            if (w >= 0 && errno == ENOBUFS) {
                recover_lost_uevents();
                continue;
            }
            // Neither poll nor recvmsg fails like this on a sound socket; the
            // pause keeps a lasting fault from filling the log at full speed.
            log_dbg("amt_handle_monitor_usb_loop receive error:%d-%s.", errno, strerror(errno));
            if (!pub_util_msleep(kErrorBackoffMs)) return monitor_stopped();
            continue;
        }
        if (n == 0) continue;
        if (sender != 0) {
            log_dbg("amt_handle_monitor_usb_loop dropped a uevent of port %u: not sent by the kernel.", sender);
            continue;
        }
        std::string_view state = uevent_usb_state_string({buf, static_cast<size_t>(n)});
        if (state.empty()) continue;
        log_dbg("amt_handle_monitor_usb_loop usb_status:[%.*s]", static_cast<int>(state.size()), state.data());
        handle_usb_state(usb_state_event_of(state));
    }

    log_dbg("amt_handle_monitor_usb_loop get usb disconnect event, will exit amt service");
    sock.reset();
    // Out of the handle first, so that the teardown does not stop the thread
    // that runs it.
    amt_usb_thread_ending(&g_monitorUsbThread);
    amt_deinit_once();
    pub_util_send_exit_signal();
    return nullptr;
}
