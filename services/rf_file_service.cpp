// The file service for wfmgr, on the wfmgr transfer thread, one request at a
// time. It owns nothing beyond the call: the read block and the FILE of the
// file routines live as long as the request. It reads the two base
// directories and the RF table list through their locks, while the PC thread
// may use the same files; nothing serialises the two. A write holds the
// thread for the sync ritual, whose waits end at once on a stop.
#include "services/rf_file_service.hpp"

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "wire/bytes.hpp"
#include "process/config.hpp"
#include "process/pub_util.hpp"
#include "protocol/verbose_scope.hpp"
#include "protocol/wf_msg.hpp"
#include "services/factory_files.hpp"
#include "services/rf_files.hpp"
#include "services/wf_request.hpp"
#include "services/wf_response.hpp"

namespace {

constexpr size_t kModifyCnfBufSize = 100;
constexpr uint32_t kCnfFieldsLen = 16;  // table_type, offset, len, count
constexpr size_t kLengthRuleMax = 3;    // bytes the total-length rule may add

struct FileRequest {
    uint32_t wf_id;
    uint32_t table_type;
    uint32_t offset;
    uint32_t len;
};

// The fields of a request; one the message does not hold whole reads as 0.
FileRequest file_request_of(std::span<const uint8_t> msg) {
    return {bytes::get_le32(msg, kWfOffWfId), bytes::get_le32(msg, kFileReqOffTableType),
            bytes::get_le32(msg, kFileReqOffOffset), bytes::get_le32(msg, kFileReqOffLen)};
}

bool holds_request_fields(std::span<const uint8_t> msg) { return msg.size() >= kFileReqOffData; }

// The two reads differ in the file, in the confirm and in their log names.
struct ReadService {
    const char* name;         // read_rf_file or read_amt_file
    const char* sender_name;  // the step that sends the confirm
    uint32_t cnf_id;
    bool amt_file;            // amt.bin, whatever table_type says
};

constexpr ReadService kReadRf = {"read_rf_file", "send_amt_read_info_cnf_msg", kWfInfoReadCnf, false};
constexpr ReadService kReadAmt = {"read_amt_file", "send_amt_file_read_cnf_msg", kWfInfoTransReq, true};

// The confirm of a read around the n bytes that already stand at offset 36.
// The bytes the total-length rule adds behind them are zeroed, so no stale
// memory goes on the wire.
int send_read_cnf(uint8_t* block, size_t size, const ReadService& service, const FileRequest& req, uint32_t n) {
    VerboseScope scope(service.sender_name);
    std::span<uint8_t> m(block, size);
    bytes::put_le32(m, kFileReqOffTableType, service.amt_file ? kFileReadCnfWord : req.table_type);
    bytes::put_le32(m, kFileReqOffOffset, req.offset);
    bytes::put_le32(m, kFileReqOffLen, req.len);
    bytes::put_le32(m, kFileCnfOffCount, n);
    memset(block + kFileCnfOffData + n, 0, kLengthRuleMax);
    int r = send_wf_message(block, size, service.cnf_id, req.wf_id, kCnfFieldsLen + n);
    if (r != 0) log_dbg("call send_amt_read_info_cnf_msg,error .");
    return r;
}

int read_for_wfmgr(std::span<const uint8_t> msg, const ReadService& service) {
    if (msg.empty()) {
        log_dbg("%s Invalid parameter .", service.name);
        return kRetNullArg;
    }
    VerboseScope scope(service.name);
    FileRequest req = file_request_of(msg);
    const unsigned long body_len = static_cast<unsigned long>(req.len) + kFileReadMargin;
    bool refused = true;
    if (!holds_request_fields(msg)) {
        log_dbg("%s request of %u bytes lacks its table_type, offset or len: answered with 0 bytes.", service.name,
                static_cast<unsigned>(msg.size()));
    } else if (req.len > INT32_MAX - kFileReadMargin) {
        log_dbg("%s len:%u leaves no room for a confirm of len + %u bytes: answered with 0 bytes.", service.name,
                req.len, kFileReadMargin);
    } else {
        refused = false;
    }
    if (refused) {
        uint8_t cnf[kFileCnfOffData + kLengthRuleMax] = {};
        int r = send_read_cnf(cnf, sizeof(cnf), service, req, 0);
        log_dbg("%s, body_len:%lu, readed_len:%lu", service.name, body_len, 0UL);
        return r;
    }
    const size_t size = static_cast<size_t>(body_len);
    // Not zeroed: every byte that is sent is written first.
    std::unique_ptr<uint8_t[]> block(new (std::nothrow) uint8_t[size]);
    if (!block) {
        log_dbg("malloc temp-buffer memory fail error:%d-%s", errno, strerror(errno));
        return kRetResource;
    }
    char path[kAmtPathSize] = {};
    if (service.amt_file) {
        char dir[kCfgPathSize];
        cfg_get_amt_relate_path(dir);
        amt_join_path(path, dir, kAmtFileName);
    } else {
        get_rf_code_full_file_name(req.table_type, path);
    }
    log_dbg("%s, file:%s, offset:%lu, len:%lu", service.name, path, static_cast<unsigned long>(req.offset),
            static_cast<unsigned long>(req.len));
    uint32_t n = 0;
    if (read_binary_file(block.get() + kFileCnfOffData, path, req.offset, req.len, &n) != 0) n = 0;
    int r = send_read_cnf(block.get(), size, service, req, n);
    log_dbg("%s, body_len:%lu, readed_len:%lu", service.name, body_len, static_cast<unsigned long>(n));
    return r;
}

int send_amt_modify_cnf_msg(const FileRequest& req, uint32_t written) {
    VerboseScope scope("send_amt_modify_cnf_msg");
    uint8_t cnf[kModifyCnfBufSize] = {};
    std::span<uint8_t> m(cnf);
    bytes::put_le32(m, kFileReqOffTableType, req.table_type);
    bytes::put_le32(m, kFileReqOffOffset, req.offset);
    bytes::put_le32(m, kFileReqOffLen, req.len);
    bytes::put_le32(m, kFileCnfOffCount, written);
    int r = send_wf_message(cnf, sizeof(cnf), kWfModifyCnf, req.wf_id, kCnfFieldsLen);
    if (r != 0) log_dbg("call send_amt_modify_cnf_msg,error .");
    return r;
}

std::span<const uint8_t> write_data_of(std::span<const uint8_t> msg) {
    return holds_request_fields(msg) ? msg.subspan(kFileReqOffData) : std::span<const uint8_t>{};
}

int log_read_failure(int r) {
    if (r != 0) log_dbg("read_rf_file failure error:%d-%s", errno, strerror(errno));
    return r;
}

int log_modify_failure(int r) {
    if (r != 0) log_dbg("modify_rf_file failure.");
    return r;
}

}  // namespace

int read_rf_file(std::span<const uint8_t> msg) { return read_for_wfmgr(msg, kReadRf); }

int read_amt_file(std::span<const uint8_t> msg) { return read_for_wfmgr(msg, kReadAmt); }

int modify_rf_file(std::span<const uint8_t> msg, std::span<const uint8_t> data) {
    if (msg.empty()) {
        log_dbg("modify_rf_file Invalid parameter .");
        return kRetNullArg;
    }
    VerboseScope scope("modify_rf_file");
    FileRequest req = file_request_of(msg);
    uint32_t written = 0;
    if (!holds_request_fields(msg)) {
        log_dbg("modify_rf_file request of %u bytes lacks its table_type, offset or len: answered with 0 bytes.",
                static_cast<unsigned>(msg.size()));
    } else if (!slice_write_fits("modify_rf_file", req.len, data)) {
        // Confirmed with writed_len 0 below.
    } else {
        char path[kAmtPathSize] = {};
        get_rf_code_full_file_name(req.table_type, path);
        log_dbg("modify_rf_file, file:%s, offset:%lu, len:%lu", path, static_cast<unsigned long>(req.offset),
                static_cast<unsigned long>(req.len));
        if (modify_binary_file(data.data(), path, req.offset, req.len, &written) != 0) written = 0;
        if (pub_util_stop_requested()) {
            log_dbg("modify_rf_file stopped: no modify confirm.");
            return 0;
        }
    }
    int r = send_amt_modify_cnf_msg(req, written);
    log_dbg("modify_rf_file, body_len:%lu, writed_len:%lu", static_cast<unsigned long>(req.len),
            static_cast<unsigned long>(written));
    return r;
}

int treat_wfmgr_amt_info_read_req_msg(AmtChannel* row) {
    if (row == nullptr) return kRetNullArg;
    VerboseScope scope("treat_wfmgr_amt_info_read_req_msg");
    return log_read_failure(read_rf_file(wf_received_message(*row)));
}

int treat_wfmgr_amt_file_read_req_msg(AmtChannel* row) {
    if (row == nullptr) return kRetNullArg;
    VerboseScope scope("treat_wfmgr_amt_file_read_req_msg");
    return log_read_failure(read_amt_file(wf_received_message(*row)));
}

int treat_wfmgr_amt_modify_req_msg(AmtChannel* row) {
    if (row == nullptr) return kRetNullArg;
    VerboseScope scope("treat_wfmgr_amt_modify_req_msg");
    std::span<const uint8_t> msg = wf_received_message(*row);
    return log_modify_failure(modify_rf_file(msg, write_data_of(msg)));
}

int treat_wfmgr_amt_file_modify_req_msg(AmtChannel* row) {
    if (row == nullptr) return kRetNullArg;
    VerboseScope scope("treat_wfmgr_amt_file_modify_req_msg");
    std::span<const uint8_t> msg = wf_received_message(*row);
    return log_modify_failure(modify_rf_file(msg, write_data_of(msg)));
}
