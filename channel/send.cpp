// write_msg_to_socket: the one road on which a whole message leaves the
// service. Called from both transfer threads, also for one and the same row;
// the row's send lock (send_lock.hpp) keeps their messages apart.
#include <cerrno>
#include <cstring>

#include "channel/channel_internal.hpp"
#include "channel/send_lock.hpp"
#include "wire/bytes.hpp"
#include "protocol/pc_frame.hpp"

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
    SendLockHold hold(channel_send_lock(index));
    if (!hold.held()) return -1;  // asked to stop while another sender had the row
    if (write_to_device(channel_io_fd(row), buf, static_cast<uint32_t>(len)) != 0) {
        log_dbg("write failure error:%d-%s", errno, strerror(errno));
        return -1;
    }
    row.up_total += static_cast<uint32_t>(len);
    return 0;
}
