// write_msg_to_socket: the one road on which a whole message leaves the
// service. Called from both transfer threads, also for one and the same row.
#include <cerrno>
#include <cstring>
#include <mutex>

#include "channel/channel_internal.hpp"
#include "process/bytes.hpp"
#include "protocol/pc_frame.hpp"

namespace {

// Two threads may send on one row at once; one lock per row keeps their
// messages whole on the wire instead of interleaving their pieces. A sender
// may hold it for long while the peer does not drain its side, so the wait for
// it watches the waiting thread's stop request.
std::mutex g_send_lock[2];

bool lock_for_sending(std::mutex& lock) {
    while (!lock.try_lock()) {
        if (!pub_util_msleep(1)) return false;
    }
    return true;
}

}  // namespace

int write_msg_to_socket(const uint8_t* buf, int32_t len, uint32_t index) {
    if (index > 1) {
        log_dbg("invalid parameter.");
        return kRetInvalidParam;
    }
    if (buf == nullptr || len == 0) {
        log_dbg("write_msg_to_socket invalide parameter.");
        return kRetInvalidParam;
    }
    if (len < 0) {
        log_dbg("write_msg_to_socket invalid length %d.", len);
        return kRetInvalidParam;
    }
    AmtChannel& row = listAmtSrv[index];
    if (verbose_log()) {
        std::span<const uint8_t> msg(buf, static_cast<size_t>(len));
        log_dbg("write_msg_to_socket listAmtSrv[i:%d], [fd-%d -> acc-%d](port:%d,cmd=0x%08X), m_socket_conn_status:%d.",
                static_cast<int>(index), row.fd.load(), row.accept_fd.load(), static_cast<int>(row.port),
                bytes::get_le32(msg, kPcOffCmd), row.m_socket_conn_status.load());
        pub_util_log_hex("send data:", buf, len < 50 ? static_cast<size_t>(len) : 50, 1000);
    }
    if (row.m_socket_conn_status != kConnOpen) {
        log_dbg("write_msg_to_socket index(%d) not connect.", static_cast<int>(index));
        return 0;
    }
    if (!lock_for_sending(g_send_lock[index])) return -1;
    std::lock_guard<std::mutex> hold(g_send_lock[index], std::adopt_lock);
    if (write_to_device(channel_io_fd(row), buf, static_cast<uint32_t>(len)) != 0) {
        log_dbg("write failure error:%d-%s", errno, strerror(errno));
        return -1;
    }
    row.up_total += static_cast<uint32_t>(len);
    return 0;
}
