// Receive threads: one per open row. Each moves bytes from the row's
// descriptor into its ring and posts rcv_sem, and decides when the link is
// dead. It owns the ring's write side, down_total and not_enough_count.
// A stop request ends its wait for bytes at once (see pub_util.hpp); the
// thread then returns without the end steps, since its closer does them.
// Held back by a ring without room for a read, it sleeps until the transfer
// thread has made room (ring_room.cpp), at most 10 ms per pass.
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "channel/channel_internal.hpp"
#include "process/config.hpp"
#include "usb/usb_entry.hpp"

namespace {

constexpr uint32_t kReadSize = kTempBufferSize;
constexpr uint32_t kIdleMs = 10;
constexpr int kStopped = 1;  // internal: the thread was asked to stop

// After a failed or empty socket read: is the connection still established?
// A query that fails counts as "not established": a socket that cannot even
// be asked about its state is of no more use.
int check_socket_state(AmtChannel& row, int fd) {
    uint8_t info[120] = {};
    socklen_t len = sizeof(info);
    int r = getsockopt(fd, IPPROTO_TCP, TCP_INFO, info, &len);
    if (r == 0 && info[0] == TCP_ESTABLISHED) {
        log_dbg("receive socket data error,continue recieve!");
        return 0;
    }
    if (r != 0) log_dbg("TCP_INFO query failed, error:%d-%s.", errno, strerror(errno));
    log_dbg("socket closed!");
    row.m_socket_conn_status = kConnClosed;
    if (row.type == kChannelTypeTcpClient) {
        channel_retire_fd(row.fd.exchange(-1));
        pub_util_send_exit_signal();
        return -1;
    }
    int old = row.accept_fd.exchange(-1);
    if (old >= 0) close(old);
    return -1;
}

}  // namespace

int receive_msg_data(uint32_t index) {
    if (index > 1) {
        log_dbg("receive_msg_data invalid parameter.");
        return kRetInvalidParam;
    }
    AmtChannel& row = listAmtSrv[index];
    int fd = channel_io_fd(row);
    if (fd < 0) {
        log_dbg("fd(%d) is null, index:%d. ", fd, static_cast<int>(index));
        return -1;
    }
    if (row.temp_write_buffer == nullptr) {
        log_dbg("temp-buff is null ");
        return -1;
    }
    if (isRingBufFull(&row.ring_buf) == 1) {
        log_dbg("buff FULL ");
        return channel_wait_for_room(row, kIdleMs) ? 0 : kStopped;
    }
    if (isRingBufEmpty(&row.ring_buf) != 1) {
        int32_t free_len = getRingBufFreeLen(&row.ring_buf);
        if (isRingBufEmpty(&row.ring_buf) != 1 && free_len <= static_cast<int32_t>(kReadSize)) {
            ++row.not_enough_count;
            if (row.not_enough_count == 1 || (row.not_enough_count & 0x3FF) == 0) {
                log_dbg("receive_msg_data not enough nTmp:%d. index:%d. count:%u.", free_len, static_cast<int>(index),
                        row.not_enough_count);
            }
            return channel_wait_for_room(row, kIdleMs) ? 0 : kStopped;
        }
    }

    ssize_t n;
    for (;;) {
        int w = pub_util_wait_fd(fd, POLLIN, -1);
        if (w == kWaitStopped) return kStopped;
        n = read(fd, row.temp_write_buffer, kReadSize);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || (errno == EINTR && row.type == kChannelTypeDevice))) {
            continue;  // woken without data: wait again
        }
        break;
    }
    if (verbose_log()) {
        log_dbg("receive_msg_data read  len:%d; fd:%d; index:%d", static_cast<int>(n), fd, static_cast<int>(index));
        log_dbg("g_blnEnumUSBSuccess:%d; g_blnReceivePCResponse:%d; g_handShakeTimer:%lu.", g_blnEnumUSBSuccess.load(),
                g_blnReceivePCResponse.load(), static_cast<unsigned long>(timer_log_id(&g_handShakeTimer)));
    }
    if (n <= 0 && row.closed_flag == 1) return kStopped;  // the close woke the read: a stop
    if (n <= 0) {
        int err = errno;
        if (n == 0) {
            log_dbg("readed empty data. index:%d", static_cast<int>(index));
        } else {
            log_dbg("read failure(errno=%d %s),  dev(%s) or port(%d), should restart service.", err, strerror(err),
                    row.name, static_cast<int>(row.port));
        }
        if (row.type != kChannelTypeDevice) return check_socket_state(row, fd);
        if (n == 0) {
            pub_util_msleep(kIdleMs);
            return 0;
        }
        pub_util_send_exit_signal();
        return -1;
    }
    if ((index & 1) != 0 && config_file_st.m_usb_activate == 1) amt_handle_pc_bytes_received();
    row.down_total += static_cast<uint32_t>(n);
    int32_t stored = writeRingBuf(&row.ring_buf, row.temp_write_buffer, static_cast<uint32_t>(n));
    if (stored < n) {
        log_dbg("to ring_buf. loss data. write_len:%d, recv_len:%d. index:%d", stored, static_cast<int>(n),
                static_cast<int>(index));
    }
    row.rcv_sem.post();
    return 0;
}

void* receive_wfmgr_srv_data_proc(void*) {
    AmtChannel& row = listAmtSrv[kChannelWfmgr];
    if (row.fd <= 0) {
        log_dbg("fd(%d) is not valid", row.fd.load());
        return nullptr;
    }
    log_dbg("start receive_wfmgr_srv_data_proc");
    while (row.run_flag) {
        if (row.catch_log) {
            int r = receive_msg_data(kChannelWfmgr);
            if (r == kStopped || pub_util_stop_requested()) return channel_thread_stopped();
            if (r != 0) {
                log_dbg("receive_msg_data return error(%d)", r);
                break;
            }
        } else if (!pub_util_msleep(kIdleMs)) {
            return channel_thread_stopped();
        }
    }
    channel_thread_end(kChannelWfmgr, &AmtChannel::thread_id, "stop receive_wfmgr_srv_data_proc");
    return nullptr;
}

namespace {

// The accept loop of a server row: one client at a time; when it goes, the
// next accept. Returns false when the thread must end (or was asked to stop).
bool wait_socket_accept(AmtChannel& row) {
    int listen_fd = row.fd;
    if (listen_fd < 0) {
        log_dbg("fd(%d) is null, index:%d. ", listen_fd, static_cast<int>(kChannelPc));
        log_dbg("wait_socket_accept return error(%d)", -1);
        return false;
    }
    log_dbg("Waiting for incoming connections...");
    for (;;) {
        int w = pub_util_wait_fd(listen_fd, POLLIN, -1);
        if (w == kWaitStopped) return false;
        sockaddr_storage addr{};
        socklen_t addr_len = sizeof(addr);
        int client = accept4(listen_fd, reinterpret_cast<sockaddr*>(&addr), &addr_len, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) continue;
            log_dbg("Connection accepted. return:%d, error: %d - %s", client, errno, strerror(errno));
            if (!pub_util_msleep(kIdleMs)) return false;
            continue;
        }
        log_dbg("Connection accepted. client_sock:%d, old_sock:%d, id:%d.", client, row.accept_fd.load(), 1);
        int old = row.accept_fd.exchange(-1);
        if (old >= 0) {
            close(old);
            usleep(100);
        }
        row.accept_fd = client;
        row.m_socket_conn_status = kConnOpen;
        while (row.run_flag && row.catch_log) {
            int r = receive_msg_data(kChannelPc);
            if (r == kStopped || pub_util_stop_requested()) return false;
            if (r != 0) {
                log_dbg("receive_msg_data return error(%d)", r);
                break;
            }
        }
    }
}

}  // namespace

void* receive_chansrv_data_proc(void*) {
    AmtChannel& row = listAmtSrv[kChannelPc];
    if (row.fd <= 0) {
        log_dbg("fd(%d) is not valid", row.fd.load());
        return nullptr;
    }
    log_dbg("start receive_chansrv_data_proc");
    while (row.run_flag) {
        if (!row.catch_log) {
            if (!pub_util_msleep(kIdleMs)) return channel_thread_stopped();
            continue;
        }
        if (row.type == kChannelTypeTcpServer) {
            if (!wait_socket_accept(row)) {
                if (pub_util_stop_requested()) return channel_thread_stopped();
                break;
            }
            continue;
        }
        int r = receive_msg_data(kChannelPc);
        if (r == kStopped || pub_util_stop_requested()) return channel_thread_stopped();
        if (r != 0) {
            log_dbg("wait_socket_accept return error(%d)", r);
            break;
        }
    }
    channel_thread_end(kChannelPc, &AmtChannel::thread_id, "stop receive_chansrv_data_proc");
    return nullptr;
}
