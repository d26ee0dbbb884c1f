// Closing one row and tearing the whole service down. Each runs once:
// closed_flag and g_blnDeinitDone are taken with an atomic exchange by the
// callers. A row is closed on whichever thread gets there first (the signal
// thread, the main thread after a failed start, or one of the row's own
// threads after a link failure); the teardown waits for such a close to
// finish before it releases what the rows share.
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "channel/channel_internal.hpp"
#include "usb/usb_entry.hpp"
#include "usb/verdict.hpp"

namespace {

constexpr int kCloseWaitMs = 3000;

void stop_and_join(ThreadHandle& field) {
    // Whoever takes the id out of the row joins the thread (see
    // channel_thread_end): a thread that took its own id has detached itself.
    pthread_t noted = field.exchange(pthread_t{});
    if (noted == pthread_t{}) return;
    ThreadHandle handle{noted};
    pub_util_kill_thread(&handle);
    int r = pthread_join(noted, nullptr);
    log_dbg(" pthread_join return:%d.", r);
}

}  // namespace

int close_ovta_amt(uint32_t index) {
    if (index >= kChannelRows - 1) return kRetInvalidParam;
    AmtChannel& row = listAmtSrv[index];
    row.closed_flag = 1;
    log_dbg("close_ovta_amt. index:%d, catch_log:%d.", static_cast<int>(index), row.catch_log.load());
    row.run_flag = 0;
    row.catch_log = 0;

    int afd = row.accept_fd.exchange(-1);
    if (afd >= 0) {
        int r = channel_retire_fd(afd);
        if (r < 0) {
            log_dbg(" close tcp accept port.device %s, return:%d, error:%d-%s \n", row.name, r, errno, strerror(errno));
        }
    }
    int fd = row.fd.exchange(-1);
    if (fd >= 0) {
        int r = shutdown(fd, SHUT_RDWR);
        if (r < 0) log_dbg(" close device %s, return:%d, error:%d-%s \n", row.name, r, errno, strerror(errno));
        r = channel_retire_fd(fd);
        log_dbg(" close device. name :%s or port:%d, return:%d.index:%d.", row.name, static_cast<int>(row.port), r,
                static_cast<int>(index));
        if (r < 0) log_dbg(" close device %s, return:%d, error:%d-%s \n", row.name, r, errno, strerror(errno));
    }
    stop_and_join(row.thread_id);
    stop_and_join(row.buf_thread_id);
    row.open_sem.destroy();
    free(row.temp_buffer);
    row.temp_buffer = nullptr;
    free(row.temp_write_buffer);
    row.temp_write_buffer = nullptr;
    releaseRingBuf(&row.ring_buf);
    log_dbg("close up total:%u; down total:%u,  index:%d.", row.up_total.load(), row.down_total.load(),
            static_cast<int>(index));
    row.close_done = true;
    return 0;
}

int amt_handle_deinit() {
    std::lock_guard<std::mutex> hold(g_channel_lifecycle_lock);
    channel_mark_teardown();
    deleteTimer(&g_LogPrintTimer);
    for (uint32_t i = 0; i < kChannelRows && listAmtSrv[i].receive_proc != nullptr; ++i) {
        log_dbg("will call close_ovta_amt.i:%d. ", static_cast<int>(i));
        if (listAmtSrv[i].closed_flag.exchange(1) != 1) close_ovta_amt(i);
    }
    for (uint32_t i = 0; i < kChannelRows && listAmtSrv[i].receive_proc != nullptr; ++i) {
        AmtChannel& row = listAmtSrv[i];
        // A row that another thread is still closing keeps its semaphore until
        // that close has joined the threads that wait on it.
        for (int waited = 0; !row.close_done && waited < kCloseWaitMs; ++waited) usleep(1000);
        if (!row.close_done) {
            // Its threads may still wait on them: the process ends with them.
            log_err("close of row %d not finished in %d ms: its semaphores are left open", static_cast<int>(i),
                    kCloseWaitMs);
            continue;
        }
        row.rcv_sem.destroy();
        row.room_sem.destroy();
    }
    if (g_monitorUsbThread.load() != pthread_t{}) {
        pub_util_kill_thread(&g_monitorUsbThread);
        g_monitorUsbThread = pthread_t{};
    }
    if (g_loadImageThread.load() != pthread_t{}) {
        pub_util_kill_thread(&g_loadImageThread);
        g_loadImageThread = pthread_t{};
    }
    deleteTimer(&g_usbEnumTimer);
    deleteTimer(&g_handShakeTimer);
    deleteTimer(&g_SendHandshakeTimer);
    if (g_blnPropertySet.exchange(1) == 0) amt_set_handshake_property();
    return 0;
}
