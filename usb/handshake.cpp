// The handshake with the PC: the 5 bytes offered once a second, the answer
// that ends it, and the picture thread started at the success.
//
// Threads: send_handshake_info runs on the periodic timer's thread. The
// answer is seen on the receive thread of the PC row
// (amt_handle_pc_bytes_received), which deletes the timers, starts the
// picture thread and calls the charger. The picture thread runs
// amt_handle_load_image_for_handshake; its one wait (the 3 s before the
// picture is shown) watches its stop event, so the teardown stops it at once.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <unistd.h>

#include "channel/amt_channel.hpp"
#include "screen/screen.hpp"
#include "usb/charger.hpp"
#include "usb/usb_entry.hpp"
#include "usb/usb_thread.hpp"

namespace {

// AA BB CC DD 7F: the head of a PC frame and 7F; no length, no CRC. The NUL
// behind it lets the log show the bytes as a string.
constexpr char kHandshake[] = "\xAA\xBB\xCC\xDD\x7F";
constexpr size_t kHandshakeLen = sizeof(kHandshake) - 1;
constexpr uint32_t kPictureDelayMs = 3000;

}  // namespace

void send_handshake_info(union sigval) {
    if (verbose_log()) log_dbg("timeout. time:%d seconds.", kHandshakeIntervalMs / 1000);
    AmtChannel& row = listAmtSrv[kChannelPc];
    int fd = channel_io_fd(row);
    if (fd < 0 || row.m_socket_conn_status != kConnOpen) {
        log_dbg("send_handshake_info: write_len:%d, send %s.", -1, kHandshake);
        return;
    }
    // One plain write, no retry: the descriptor is non-blocking, so a full
    // line costs this tick only (the next one tries again), and a descriptor
    // the teardown has retired fails rather than reaching another file.
    ssize_t n = write(fd, kHandshake, kHandshakeLen);
    if (n < 0) {
        log_dbg("send_handshake_info write to device failure error:%d-%s. fd:%d.", errno, strerror(errno), fd);
    } else {
        row.up_total += static_cast<uint32_t>(kHandshakeLen);
    }
    log_dbg("send_handshake_info: write_len:%d, send %s.", static_cast<int>(n), kHandshake);
}

void amt_handle_pc_bytes_received() {
    // Bytes from the PC prove the enumeration.
    if (g_blnEnumUSBSuccess.exchange(1) == 0) deleteTimer(&g_usbEnumTimer);
    // Before CONFIGURED there is no handshake timer, so no success yet: the
    // next read tests again.
    if (g_blnReceivePCResponse != 0 || g_handShakeTimer.load() == kNoTimer) return;
    g_blnReceivePCResponse = 1;
    deleteTimer(&g_SendHandshakeTimer);
    deleteTimer(&g_handShakeTimer);
    // The deletions have returned, so no time-out runs any more; one that ran
    // first has begun the end of the service, and the answer came too late.
    if (g_blnTimeoutExit != 0) {
        log_dbg("handshake answered after the time-out; the service is ending.");
        return;
    }
    log_dbg("handshake success.");
    int err = amt_start_usb_thread(&g_loadImageThread, amt_handle_load_image_for_handshake);
    if (err == 0) {
        log_dbg("pthread_create() amt_handle_load_image_for_handshake success.");
    } else {
        log_dbg("pthread_create() amt_handle_load_image_for_handshake: %d - %s", err, strerror(err));
    }
    int32_t r = amt_usb_charge_ctrl(0);
    log_dbg("call amt_usb_charge_ctrl. return:%d,  usb_charge_mode:%d.", r, 0);
}

void* amt_handle_load_image_for_handshake(void*) {
    if (screen_init() != 0) {
        log_dbg("screen_init return error, not update screen.");
    } else if (pub_util_msleep(kPictureDelayMs)) {
        screen_update();  // its result changes nothing: the agent serves either way
    } else {
        pub_util_handle_thread_signal(SIGUSR1);
    }
    amt_usb_thread_ending(&g_loadImageThread);
    return nullptr;
}
