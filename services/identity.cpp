// PC commands 45, 65, 67, 85 and 87, on the PC transfer thread: the request
// stands in the row's temp_msg, which is zero behind the frame, and each
// handler answers with one frame built in a local buffer. The two writes end
// in the sync ritual; a stop of the thread during it ends the handler without
// an answer, as the teardown is under way.
#include "services/identity.hpp"

#include <cstring>
#include <span>

#include "platform/platform.hpp"
#include "wire/bytes.hpp"
#include "protocol/pc_frame.hpp"
#include "services/amt_text_file.hpp"
#include "services/pc_response.hpp"

namespace {

constexpr uint32_t kRspVersion = 46;
constexpr uint32_t kRspReadDate = 66;
constexpr uint32_t kRspWriteDate = 68;
constexpr uint32_t kRspReadBoard = 86;
constexpr uint32_t kRspWriteBoard = 88;

constexpr uint32_t kResultDone = 0;
constexpr uint32_t kResultFailed = 10;

constexpr size_t kOffResult = 16;
constexpr size_t kOffData = 20;  // module of response 46, the text of 66 and 86
constexpr size_t kOffVersion = 24;
constexpr size_t kOffRequestText = 16;

constexpr const char* kVersionProperty = "ro.build.display.tq.id";
constexpr size_t kVersionMax = 64;
constexpr size_t kDateFieldSize = 12;  // holds at most 10 bytes of text
constexpr size_t kDateTextMax = 10;
constexpr size_t kBoardTextMax = 20;
constexpr int32_t kBoardZeroBelow = 20;  // a shorter board body gets its terminator over the CRC

// The text of a request from offset 16: it runs to the first zero byte, at the
// end of temp_msg at the latest.
const char* request_text(const AmtChannel& row) { return reinterpret_cast<const char*>(row.temp_msg + kOffRequestText); }
constexpr size_t kRequestTextCap = kTempMsgSize - kOffRequestText;
int request_text_len(const AmtChannel& row) { return static_cast<int>(strnlen(request_text(row), kRequestTextCap)); }

uint32_t text_result(int store_result) { return store_result == 0 ? kResultDone : kResultFailed; }

// Response 68 or 88: the result word alone.
int send_result_only(uint32_t cmd, uint32_t result_code) {
    uint8_t frame[24] = {};
    bytes::put_le32(frame, kOffResult, result_code);
    return send_pc_response(frame, sizeof(frame), cmd, 4);
}

}  // namespace

int treat_version_cmd(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("treat_version_cmd Invalid parameter .");
        return kRetNullArg;
    }
    const uint32_t module = bytes::get_le32(row->temp_msg, kOffResult);
    log_dbg("treat_version_cmd  module:%d.", static_cast<int>(module));

    uint8_t frame[kOffVersion + kVersionMax + 4] = {};
    bytes::put_le32(frame, kOffResult, kResultDone);
    bytes::put_le32(frame, kOffData, module);
    char value[platform::kPropValueMax] = {};
    platform::property_get(kVersionProperty, value, "0");
    size_t n = strnlen(value, sizeof(value));
    if (n > kVersionMax) n = kVersionMax;
    memcpy(frame + kOffVersion, value, n);
    log_dbg("pMsg->version :%s, len:%d.", value, static_cast<int>(n));

    const uint32_t body_len = static_cast<uint32_t>(8 + n);
    if (build_pc_response(frame, sizeof(frame), kRspVersion, body_len) != 0) return -1;
    const uint32_t frame_len = 12 + body_len;
    log_dbg("the buffer len %d ,data is :", static_cast<int>(frame_len));
    for (uint32_t i = 0; i < frame_len; ++i) log_dbg("0x%02x ", frame[i]);
    log_dbg("\n");
    return send_built_pc_response(frame, body_len);
}

int treat_read_outdate_cmd(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("treat_read_outdate_cmd Invalid parameter .");
        return kRetNullArg;
    }
    uint8_t frame[kOffData + kDateFieldSize + 4] = {};
    char text[kAmtTextSize];
    uint32_t result_code = kResultFailed;
    if (read_amt_text_file(text, kProductDateFile) == 0) {
        log_dbg("readed success from file(%s). IMEI: %s.", kProductDateFile, text);
        memcpy(frame + kOffData, text, strnlen(text, kDateTextMax));
        result_code = kResultDone;
    }
    bytes::put_le32(frame, kOffResult, result_code);
    return send_pc_response(frame, sizeof(frame), kRspReadDate, 4 + kDateFieldSize);
}

int treat_write_outdate_cmd(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("treat_write_outdate_cmd Invalid parameter .");
        return kRetNullArg;
    }
    log_dbg("treat_write_outdate_cmd product_date:%.*s", request_text_len(*row), request_text(*row));
    int r = write_amt_text_file(request_text(*row), kRequestTextCap, kProductDateFile);
    if (pub_util_stop_requested()) return 0;
    return send_result_only(kRspWriteDate, text_result(r));
}

int treat_read_board_cmd(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("treat_read_board_cmd Invalid parameter .");
        return kRetNullArg;
    }
    uint8_t frame[kOffData + kBoardTextMax + 4] = {};
    char text[kAmtTextSize];
    uint32_t result_code = kResultFailed;
    size_t n = 0;
    if (read_amt_text_file(text, kBoardNoFile) == 0) {
        log_dbg("readed success from file(%s). board_no: %s.", kBoardNoFile, text);
        n = strnlen(text, kBoardTextMax);
        memcpy(frame + kOffData, text, n);
        result_code = kResultDone;
    }
    bytes::put_le32(frame, kOffResult, result_code);
    return send_pc_response(frame, sizeof(frame), kRspReadBoard, static_cast<uint32_t>(4 + n));
}

int treat_write_board_cmd(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("treat_write_board_cmd Invalid parameter .");
        return kRetNullArg;
    }
    const int32_t msg_len = row->temp_msg_process_len;
    const int32_t boardlen = msg_len - 20;
    log_dbg("treat_write_board_cmd board_no:%.*s, boardlen:%d, msg_len:%d", request_text_len(*row),
            request_text(*row), boardlen, msg_len);
    // A body shorter than 20 bytes ends where the request's CRC begins. A frame
    // with no body at all (boardlen below 0) is already zero from offset 16.
    if (boardlen < kBoardZeroBelow) {
        row->temp_msg[kOffRequestText + static_cast<size_t>(boardlen > 0 ? boardlen : 0)] = 0;
    }
    log_dbg("treat_write_board_cmd board_no11:%.*s, boardlen:%d, msg_len:%d", request_text_len(*row),
            request_text(*row), boardlen, msg_len);
    int r = write_amt_text_file(request_text(*row), kRequestTextCap, kBoardNoFile);
    if (pub_util_stop_requested()) return 0;
    return send_result_only(kRspWriteBoard, text_result(r));
}
