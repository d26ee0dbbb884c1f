#include "services/wf_response.hpp"

#include <cerrno>
#include <cstring>
#include <span>

#include "channel/amt_channel.hpp"
#include "wire/bytes.hpp"
#include "protocol/wf_msg.hpp"

int send_wf_message(uint8_t* msg, size_t size, uint32_t msg_id, uint32_t wf_id, uint32_t body_len) {
    if (msg == nullptr || size > INT32_MAX || add_wf_general_msg(msg, static_cast<int32_t>(size), msg_id) != 0) {
        log_dbg("construct add_wf_general_msg failure.");
        return -1;
    }
    std::span<uint8_t> m(msg, size);
    bytes::put_le32(m, kWfOffWfId, wf_id);
    bytes::put_le32(m, kWfOffBodyLen, body_len);
    bytes::put_le32(m, kWfOffTotalLen, body_len + static_cast<uint32_t>(kWfHeaderLen));
    uint32_t remainder = 0;
    if (body_len > size - kWfHeaderLen ||
        modify_total_len_by_mod4(msg, static_cast<int32_t>(size), &remainder) != 0) {
        log_dbg("call modify_total_len_by_mod4 failure.");
        return -1;
    }
    int r = write_msg_to_socket(msg, static_cast<int32_t>(bytes::get_le32(m, kWfOffTotalLen)), kChannelWfmgr);
    if (r != 0) log_dbg("write_msg_to_socket failure error:%d-%s", errno, strerror(errno));
    return r;
}
