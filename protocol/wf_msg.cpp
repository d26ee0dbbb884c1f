// Building WfMsgs: the 20-byte header and the total-length rule. Both work on
// the caller's buffer only.
#include "protocol/wf_msg.hpp"

#include <span>

#include "wire/bytes.hpp"
#include "process/pub_util.hpp"

int32_t add_wf_general_msg(uint8_t* buf, int32_t size, uint32_t msg_id) {
    if (buf == nullptr || size < static_cast<int32_t>(kWfHeaderLen)) {
        log_dbg("add_wf_general_msg Invalid parameter .");
        return kRetBadSize;
    }
    std::span<uint8_t> msg(buf, kWfHeaderLen);
    bytes::put_le32(msg, kWfOffTotalLen, static_cast<uint32_t>(kWfHeaderLen));
    bytes::put_le32(msg, kWfOffWfId, 0xFFFFFFFFu);
    bytes::put_le16(msg, kWfOffReservedA, 0xFFFF);
    bytes::put_le16(msg, kWfOffReservedB, 0xFFFF);
    bytes::put_le32(msg, kWfOffMsgId, msg_id);
    bytes::put_le32(msg, kWfOffBodyLen, 0);
    return 0;
}

// wfmgr reads exactly total_len bytes, and it expects the length grown by its
// remainder modulo 4, not rounded up: 37 goes out as 38 and 39 as 42. The rule
// is applied once per message; the bytes it adds carry no meaning but must lie
// inside the buffer, or the send would read past it.
int32_t modify_total_len_by_mod4(uint8_t* buf, int32_t size, uint32_t* remainder) {
    if (buf == nullptr || size < static_cast<int32_t>(kWfHeaderLen)) {
        log_dbg("modify_total_len_by_mod4 Invalid parameter .");
        return kRetBadSize;
    }
    std::span<uint8_t> msg(buf, static_cast<size_t>(size));
    const uint32_t total = bytes::get_le32(msg, kWfOffTotalLen);
    const uint32_t r = total % 4;
    if (static_cast<uint64_t>(total) + r > static_cast<uint64_t>(size)) {
        log_dbg("modify_total_len_by_mod4 Invalid parameter .");
        return kRetBadSize;
    }
    bytes::put_le32(msg, kWfOffTotalLen, total + r);
    if (remainder != nullptr) *remainder = r;
    return 0;
}
