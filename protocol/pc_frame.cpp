// Building PcFrames in the agent: the header of a response, the CRC behind it,
// and the wrapping of a payload from wfmgr into a frame (the layout and the
// CRC itself are wire/'s).
// Everything here works on the caller's buffer only, so both transfer threads
// may call it at once.
#include "protocol/pc_frame.hpp"

#include <cstring>
#include <span>

#include "wire/bytes.hpp"
#include "process/pub_util.hpp"

namespace {

constexpr size_t kCrcLen = kPcCrcLen;
constexpr size_t kWrapFront = 12;  // head, frame_len, tag, kind, reserved

}  // namespace

int32_t add_amt_cmd_general_msg(uint8_t* buf, int32_t size, uint32_t cmd) {
    if (buf == nullptr || size < static_cast<int32_t>(kPcHeaderLen)) {
        log_dbg("add_amt_cmd_general_msg Invalid parameter .");
        return kRetBadSize;
    }
    std::span<uint8_t> frame(buf, kPcHeaderLen);
    memset(buf, 0, kPcHeaderLen);
    memcpy(buf, kFrameHead, sizeof(kFrameHead));
    bytes::put_le32(frame, kPcOffFrameLen, static_cast<uint32_t>(kPcHeaderLen));
    frame[kPcOffTag] = kFrameTag;
    frame[kPcOffKind] = 0;
    bytes::put_le32(frame, kPcOffCmd, cmd);
    return 0;
}

int32_t add_amt_crc(uint8_t* buf, int32_t n) {
    if (buf == nullptr || n < 0) {
        log_dbg("%d", 1);
        return kRetInvalidParam;
    }
    std::span<uint8_t> frame(buf, static_cast<size_t>(n) + kCrcLen);
    bytes::put_le32(frame, static_cast<size_t>(n), static_cast<uint32_t>(amt_crc32(buf, n)));
    return 0;
}

uint16_t get_amt_msg_len(const uint8_t* p) {
    if (p == nullptr) return 0;
    return bytes::get_le16(std::span<const uint8_t>(p, 2), 0);
}

// The payload's first word becomes cmd: it lands at offset 12 behind the 12
// bytes of head, frame_len, tag, kind and reserved, and the CRC goes behind
// it. A payload of p bytes needs p + 16 bytes of store. An empty payload takes
// its length from its own first two bytes, which may be left over from an
// earlier frame, so that length is held to the store like any other. A
// refused store keeps its len.
int32_t add_amt_head(AmtPayloadStore* store) {
    if (store == nullptr) {
        log_dbg("%d", 1);
        return kRetInvalidParam;
    }
    const uint32_t payload = store->len != 0 ? store->len : get_amt_msg_len(store->data);
    if (payload == 0) {
        log_dbg("%d", 1);
        return kRetInvalidParam;
    }
    if (payload > kAmtStorePayloadMaxForPc) {
        log_dbg("add_amt_head payload len:%u too long for a frame, at most %u.", payload,
                static_cast<unsigned>(kAmtStorePayloadMaxForPc));
        return kRetInvalidParam;
    }
    std::span<uint8_t> frame(store->data);
    memmove(store->data + kWrapFront, store->data, payload);
    memcpy(store->data, kFrameHead, sizeof(kFrameHead));
    bytes::put_le32(frame, kPcOffFrameLen, payload + 8);
    frame[kPcOffTag] = kFrameTag;
    frame[kPcOffKind] = 0;
    bytes::put_le16(frame, kPcOffReserved, 0);
    const uint32_t covered = payload + static_cast<uint32_t>(kWrapFront);
    bytes::put_le32(frame, covered, static_cast<uint32_t>(amt_crc32(store->data, static_cast<int32_t>(covered))));
    store->len = covered + static_cast<uint32_t>(kCrcLen);
    return 0;
}
