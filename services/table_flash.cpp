// Table flash commands, on the PC transfer thread, one frame at a time, with
// the frame in the PC row's temp_msg (zero behind the frame). The wfmgr
// thread may read or write the same RF file meanwhile; nothing serialises the
// two, as on the phone. A write holds this thread for the sync ritual, whose
// waits end at once on a stop.
#include "services/table_flash.hpp"

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "wire/bytes.hpp"
#include "process/pub_util.hpp"
#include "protocol/pc_frame.hpp"
#include "protocol/verbose_scope.hpp"
#include "services/factory_files.hpp"
#include "services/pc_response.hpp"
#include "services/rf_files.hpp"

namespace {

constexpr uint32_t kResultDone = 0;
constexpr uint32_t kResultFailed = 10;
constexpr size_t kResultRspSize = 24;  // header, result_code, frame_crc
constexpr size_t kFlashCrcLen = 4;     // frame_crc behind a request's data

struct FlashRequest {
    uint32_t table_type;
    uint32_t offset;
    uint32_t len;
};

FlashRequest flash_request_of(std::span<const uint8_t> frame) {
    return {bytes::get_le32(frame, kFlashOffTableType), bytes::get_le32(frame, kFlashOffOffset),
            bytes::get_le32(frame, kFlashOffLen)};
}

void log_request(const char* command, std::span<const uint8_t> frame) {
    FlashRequest req = flash_request_of(frame);
    log_dbg("%s table_type:%d, offset:%d, len:%d.", command, static_cast<int>(req.table_type),
            static_cast<int>(req.offset), static_cast<int>(req.len));
}

bool is_frame(std::span<const uint8_t> message) {
    return message.data() != nullptr && message.size() >= kFlashOffData;
}

// Response 62 from the filled read buffer: result_code, then the n bytes that
// already stand at offset 20, then frame_crc.
int send_read_table_flash_rsp(uint8_t* frame, size_t size, uint32_t n, uint32_t result_code) {
    VerboseScope scope("send_read_table_flash_rsp");
    bytes::put_le32(std::span<uint8_t>(frame, size), kPcOffBody, result_code);
    return send_pc_response(frame, size, kRspReadTableFlash, 4 + n);
}

}  // namespace

int treat_read_table_flash_cmd(AmtChannel* row) {
    if (row == nullptr) return kRetNullArg;
    std::span<const uint8_t> frame(row->temp_msg);
    log_request("treat_read_table_flash_cmd", frame);
    return read_table_flash_file(frame);
}

int treat_write_table_flash_cmd(AmtChannel* row) {
    if (row == nullptr) return kRetNullArg;
    std::span<const uint8_t> frame(row->temp_msg);
    log_request("treat_write_table_flash_cmd", frame);
    // The data the PC sent run from offset 28 up to the frame's CRC.
    size_t frame_size = row->temp_msg_process_len > 0 ? static_cast<size_t>(row->temp_msg_process_len) : 0;
    if (frame_size > frame.size()) frame_size = frame.size();
    size_t data_len = frame_size > kFlashOffData + kFlashCrcLen ? frame_size - kFlashOffData - kFlashCrcLen : 0;
    int r = modify_table_flash_file(frame, frame.subspan(kFlashOffData, data_len));
    if (r != 0) log_dbg("modify_rf_file failure.");
    return r;
}

int read_table_flash_file(std::span<const uint8_t> message) {
    VerboseScope scope("read_table_flash_file");
    if (!is_frame(message)) {
        log_dbg("read_table_flash_file Invalid parameter .");
        return kRetNullArg;
    }
    FlashRequest req = flash_request_of(message);
    if (req.len > INT32_MAX - kFlashReadMargin) {
        // No buffer of that size can be asked for, nor a frame of it sent.
        log_dbg("read_table_flash_file len:%u leaves no room for a response of len + %u bytes.", req.len,
                kFlashReadMargin);
        errno = ENOMEM;
        log_dbg("malloc temp-buffer memory fail error:%d-%s", errno, strerror(errno));
        return kRetResource;
    }
    const size_t size = static_cast<size_t>(req.len) + kFlashReadMargin;
    // Not zeroed: every byte that is sent is written first.
    std::unique_ptr<uint8_t[]> frame(new (std::nothrow) uint8_t[size]);
    if (!frame) {
        log_dbg("malloc temp-buffer memory fail error:%d-%s", errno, strerror(errno));
        return kRetResource;
    }
    char path[kAmtPathSize] = {};
    uint32_t n = 0;
    uint32_t result_code = kResultFailed;
    if (get_rf_specified_file(path, sizeof(path), req.table_type) != 0) {
        log_dbg("call get_rf_specified_file,error .");
    } else {
        log_dbg("read_table_flash_file, file:%s, offset:%lu, len:%lu", path, static_cast<unsigned long>(req.offset),
                static_cast<unsigned long>(req.len));
        if (read_binary_file(frame.get() + kFlashRspOffData, path, req.offset, req.len, &n) != 0) n = 0;
        if (n == req.len) result_code = kResultDone;
    }
    int r = send_read_table_flash_rsp(frame.get(), size, n, result_code);
    if (r != 0) log_dbg("call send_amt_read_info_cnf_msg,error .");
    log_dbg("read_table_flash_file, body_len:%lu, readed_len:%lu", static_cast<unsigned long>(size),
            static_cast<unsigned long>(n));
    return r;
}

int modify_table_flash_file(std::span<const uint8_t> message, std::span<const uint8_t> data) {
    VerboseScope scope("modify_table_flash_file");
    if (!is_frame(message)) {
        log_dbg("modify_table_flash_file Invalid parameter .");
        return kRetNullArg;
    }
    FlashRequest req = flash_request_of(message);
    char path[kAmtPathSize] = {};
    uint32_t written = 0;
    uint32_t result_code = kResultFailed;
    if (!slice_write_fits("modify_table_flash_file", req.len, data)) {
        // Answered with result_code 10 below.
    } else if (get_rf_specified_file(path, sizeof(path), req.table_type) != 0) {
        log_dbg("call get_rf_specified_file,error .");
    } else {
        log_dbg("modify_table_flash_file, file:%s, offset:%lu, len:%lu", path, static_cast<unsigned long>(req.offset),
                static_cast<unsigned long>(req.len));
        if (modify_binary_file(data.data(), path, req.offset, req.len, &written) != 0) written = 0;
        if (pub_util_stop_requested()) {
            log_dbg("modify_table_flash_file stopped: no response 64.");
            return 0;
        }
        if (written == req.len) result_code = kResultDone;
    }
    uint8_t rsp[kResultRspSize] = {};
    bytes::put_le32(rsp, kPcOffBody, result_code);
    return send_pc_response(rsp, sizeof(rsp), kRspWriteTableFlash, 4);
}
