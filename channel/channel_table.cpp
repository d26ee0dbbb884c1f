// listAmtSrv, its reset, and the end steps shared by the channel threads.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "channel/channel_internal.hpp"
#include "services/wf_id.hpp"

AmtChannel::AmtChannel(const char* row_name, uint32_t row_type, uint32_t row_port, ThreadProc receive,
                       ThreadProc transfer)
    : type(row_type), port(row_port), receive_proc(receive), transfer_proc(transfer) {
    strncpy(name, row_name, sizeof(name) - 1);
}

AmtChannel listAmtSrv[kChannelRows] = {
    {"TCP_CLIENT", kChannelTypeTcpClient, 8030, receive_wfmgr_srv_data_proc, treat_wfmgr_relate_buf_proc},
    {"/dev/ttyGS3", kChannelTypeDevice, 0, receive_chansrv_data_proc, treat_chansrv_relate_buf_proc},
    {},
};

TimerHandle g_LogPrintTimer{kNoTimer};
std::mutex g_channel_lifecycle_lock;

int channel_dead_fd() {
    static const int dead = [] {
        int p[2];
        if (pipe2(p, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
        close(p[0]);
        return p[1];
    }();
    return dead;
}

int channel_retire_fd(int fd) {
    if (fd < 0) return 0;
    int dead = channel_dead_fd();
    if (dead >= 0 && dup2(dead, fd) == fd) return 0;
    return close(fd);
}

int ovta_amt_init() {
    // A stop can come while the start runs: the reset and the teardown take
    // the rows one after the other, never both at once.
    std::lock_guard<std::mutex> hold(g_channel_lifecycle_lock);
    set_wf_id(0xFFFFFFFFu);
    channel_dead_fd();
    for (size_t i = 0; i < kChannelRows && listAmtSrv[i].receive_proc != nullptr; ++i) {
        AmtChannel& row = listAmtSrv[i];
        row.fd = -1;
        row.accept_fd = -1;
        row.thread_id = pthread_t{};
        row.m_nLoadLen = 0;
        row.m_msg_cmd = 0;
        row.type_id = static_cast<uint8_t>(i);
        row.buf_thread_id = pthread_t{};
        row.run_flag = 1;
        row.catch_log = 0;
        row.closed_flag = 0;
        row.close_done = false;
        row.temp_buffer = nullptr;
        row.temp_write_buffer = nullptr;
        row.down_total = 0;
        row.up_total = 0;
        row.temp_msg_process_len = 0;
        row.assembly_phase = AssemblyPhase::kStart;
        row.head_search = HeadSearch{};
        row.skip_left = 0;
        row.not_enough_count = 0;
        row.m_socket_conn_status = kConnNotYet;
        if (!row.rcv_sem.create(0)) log_dbg("rcv_sem of row %d: eventfd error:%d-%s", static_cast<int>(i), errno, strerror(errno));
        // Without room_sem a receive thread held back by a full ring looks
        // again every 10 ms instead of waking when room is made.
        row.room_wanted = 0;
        if (!row.room_sem.create(0)) log_dbg("room_sem of row %d: eventfd error:%d-%s", static_cast<int>(i), errno, strerror(errno));
    }
    g_LogPrintTimer = kNoTimer;
    return 0;
}

void channel_thread_end(uint32_t index, ThreadHandle AmtChannel::*own_id, const char* stop_message) {
    AmtChannel& row = listAmtSrv[index];
    row.run_flag = 0;
    log_dbg("%s", stop_message);
    // Whoever takes the id out of the row joins the thread. If this thread takes
    // its own id, nobody will join it, so it detaches itself.
    pthread_t own = (row.*own_id).exchange(pthread_t{});
    if (own != pthread_t{}) pthread_detach(own);
    if (row.closed_flag.exchange(1) != 1) close_ovta_amt(index);
}

void* channel_thread_stopped() {
    pub_util_handle_thread_signal(SIGUSR1);
    return nullptr;
}
