#include "services/pc_response.hpp"

#include <cerrno>
#include <cstring>
#include <span>

#include "channel/amt_channel.hpp"
#include "wire/bytes.hpp"
#include "protocol/pc_frame.hpp"

namespace {

constexpr size_t kCrcLen = 4;

}  // namespace

int build_pc_response(uint8_t* frame, size_t size, uint32_t cmd, uint32_t body_len) {
    if (frame == nullptr || size > INT32_MAX ||
        add_amt_cmd_general_msg(frame, static_cast<int32_t>(size), cmd) != 0) {
        log_dbg("construct add_amt_cmd_general_msg failure.");
        return -1;
    }
    if (size < kPcHeaderLen + kCrcLen || body_len > size - kPcHeaderLen - kCrcLen) {
        log_dbg("call add_amt_crc failure.");
        return -1;
    }
    const uint32_t frame_len = 12 + body_len;
    bytes::put_le32(std::span<uint8_t>(frame, size), kPcOffFrameLen, frame_len);
    if (add_amt_crc(frame, static_cast<int32_t>(frame_len + 4)) != 0) {
        log_dbg("call add_amt_crc failure.");
        return -1;
    }
    return 0;
}

int send_built_pc_response(const uint8_t* frame, uint32_t body_len) {
    int r = write_msg_to_socket(frame, static_cast<int32_t>(kPcHeaderLen + body_len + kCrcLen), kChannelPc);
    if (r != 0) log_dbg("write_msg_to_socket failure error:%d-%s", errno, strerror(errno));
    return r;
}

int send_pc_response(uint8_t* frame, size_t size, uint32_t cmd, uint32_t body_len) {
    if (build_pc_response(frame, size, cmd, body_len) != 0) return -1;
    return send_built_pc_response(frame, body_len);
}
