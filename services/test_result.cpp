// PC commands 89 and 91, on the PC transfer thread: the request stands in the
// row's temp_msg, zero behind the frame, and each handler answers with one
// frame built in a local buffer. Both make the store fresh first when it is
// missing or empty. A stop of the thread during the pause of a fresh store or
// during the sync ritual ends the handler without an answer, as the teardown
// is under way; the store is whole either way.
#include "services/test_result.hpp"

#include <cstring>

#include "wire/bytes.hpp"
#include "services/pc_response.hpp"
#include "services/test_result_store.hpp"

namespace {

constexpr uint32_t kRspReadResult = 90;
constexpr uint32_t kRspWriteResult = 92;

constexpr size_t kOffSiteNo = 16;
constexpr size_t kOffResult = 20;  // of command 91
constexpr size_t kOffResultCode = 16;  // of both responses
constexpr size_t kOffStationResult = 20;
constexpr size_t kOffDescription = 24;
constexpr uint32_t kWriteStored = 0;
constexpr uint32_t kWriteFailed = 10;
constexpr int32_t kWriteHeadLen = 28;  // header, site_no, result and the CRC
constexpr int32_t kDescriptionZeroUpTo = 127;

const char* description_of(const AmtChannel& row) {
    return reinterpret_cast<const char*>(row.temp_msg + kOffDescription);
}
int description_len(const AmtChannel& row) {
    return static_cast<int>(strnlen(description_of(row), kTempMsgSize - kOffDescription));
}

}  // namespace

int treat_read_test_result_cmd(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("treat_read_test_result_cmd Invalid parameter .");
        return kRetNullArg;
    }
    amt_init_test_result_file();
    if (pub_util_stop_requested()) return 0;
    const uint32_t site_no = bytes::get_le32(row->temp_msg, kOffSiteNo);
    log_dbg("treat_read_test_result_cmd site_no:%d.", static_cast<int>(site_no));

    TestResultInfo info;
    get_test_result_info(site_no, &info);
    uint8_t frame[kOffDescription + kDescriptionMax + 4] = {};
    bytes::put_le32(frame, kOffResultCode, info.result_code);
    bytes::put_le32(frame, kOffStationResult, info.station_result);
    memcpy(frame + kOffDescription, info.description, info.description_len);
    log_dbg("treat_read_test_result_cmd  result:%d, description:%.*s", static_cast<int>(info.station_result),
            static_cast<int>(info.description_len), info.description);

    const uint32_t body_len = static_cast<uint32_t>(8 + info.description_len);
    if (build_pc_response(frame, sizeof(frame), kRspReadResult, body_len) != 0) return -1;
    const uint32_t wire_len = 20 + body_len;  // frame_len + 8
    log_dbg("treat_read_test_result_cmd data: ");
    for (uint32_t i = 0; i < wire_len; ++i) log_dbg("0x%02x ", frame[i]);
    log_dbg("\n");
    return send_built_pc_response(frame, body_len);
}

int treat_write_test_result_cmd(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("treat_write_test_result_cmd Invalid parameter .");
        return kRetNullArg;
    }
    uint8_t frame[24] = {};
    const int32_t msg_len = row->temp_msg_process_len;
    if (msg_len < kWriteHeadLen) {
        // No complete site_no and result: nothing to store, and the store is
        // left alone (not even made fresh).
        log_dbg("treat_write_test_result_cmd frame of %d bytes holds no site_no and result, not stored.", msg_len);
        bytes::put_le32(frame, kOffResultCode, kWriteFailed);
        return send_pc_response(frame, sizeof(frame), kRspWriteResult, 4);
    }
    amt_init_test_result_file();
    if (pub_util_stop_requested()) return 0;
    const uint32_t site_no = bytes::get_le32(row->temp_msg, kOffSiteNo);
    const int32_t result = static_cast<int32_t>(bytes::get_le32(row->temp_msg, kOffResult));
    log_dbg("treat_write_test_result_cmd site_no:%d, result:%d, description:%.*s", static_cast<int>(site_no),
            result, description_len(*row), description_of(*row));
    // A description of up to 127 bytes ends where the request's CRC begins; a
    // longer one runs on through the CRC bytes to the first zero byte.
    const int32_t m = msg_len - kWriteHeadLen;
    if (m <= kDescriptionZeroUpTo) row->temp_msg[kOffDescription + static_cast<size_t>(m)] = 0;
    log_dbg("treat_write_test_result_cmd write site_no:%d, result:%d, description:%.*s", static_cast<int>(site_no),
            result, description_len(*row), description_of(*row));

    int r = modify_test_result_value(row->temp_msg, sizeof(row->temp_msg));
    if (pub_util_stop_requested()) return 0;
    bytes::put_le32(frame, kOffResultCode, r == 0 ? kWriteStored : kWriteFailed);
    return send_pc_response(frame, sizeof(frame), kRspWriteResult, 4);
}
