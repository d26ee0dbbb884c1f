// Enter AMT. Command 17 runs on the PC transfer thread with the frame in the
// PC row's temp_msg, which is zero behind the frame. The load confirm runs on
// the wfmgr transfer thread with the message in the wfmgr row's temp_msg.
// Shared between the two: wf_id (an atomic, wf_id.hpp) and
// m_amt_relate_path, which mode 4 rewrites under the configuration's lock
// while the wfmgr thread may replace it (cfg_edit_amt_relate_path).
// Nothing records a pending load: a confirm answers the PC whenever it comes.
#include "services/enter_amt.hpp"

#include <cerrno>
#include <cstring>
#include <span>

#include "wire/bytes.hpp"
#include "process/config.hpp"
#include "protocol/pc_frame.hpp"
#include "protocol/verbose_scope.hpp"
#include "protocol/wf_msg.hpp"
#include "services/pc_response.hpp"
#include "services/wf_amt_path.hpp"
#include "services/wf_id.hpp"
#include "services/wf_request.hpp"
#include "services/wf_response.hpp"

namespace {

constexpr size_t kResultRspSize = 24;  // header, result_code, frame_crc
constexpr uint32_t kResultDone = 0;
constexpr uint32_t kResultFailed = 10;

int send_enter_amt_rsp(uint32_t result_code) {
    uint8_t rsp[kResultRspSize] = {};
    bytes::put_le32(rsp, kPcOffBody, result_code);
    return send_pc_response(rsp, sizeof(rsp), kRspEnterAmt, 4);
}

int load_req_failure() {
    log_dbg("send_amt_load_req_msg failure error:%d-%s", errno, strerror(errno));
    return kRetRefused;
}

// `name` holds at most 64 characters: the field of the load request, which
// carries it without terminator. Mode 4 takes the very same name.
int send_amt_load_req_msg(uint8_t amt_mode, const char* name) {
    if (verbose_log()) log_dbg("send_amt_load_req_msg start.");
    if (name[0] == '\0') {
        log_dbg("send_amt_load_req_msg Invalid parameter .");
        return load_req_failure();
    }
    uint8_t req[kLoadReqBufSize] = {};
    memcpy(req + kLoadReqOffWfName, name, strnlen(name, kWfNameFieldSize));
    req[kLoadReqOffMode] = amt_mode;
    if (amt_mode != kModePathRewrite) {
        if (send_wf_message(req, sizeof(req), kWfLoadReq, kNoWfId, kLoadReqBodyLen) != 0) return load_req_failure();
        // Response 18 comes with the load confirm.
        if (verbose_log()) log_dbg("send_amt_load_req_msg end.");
        return 0;
    }
    int result = cfg_edit_amt_relate_path(amt_path_rewrite_for_wf, name);
    int r = send_enter_amt_rsp(static_cast<uint32_t>(result));
    log_dbg("send AMT_OVTA_ENTER_AMT_RSPCMD in send_amt_load_req_msg.");
    return r == 0 ? 0 : load_req_failure();
}

}  // namespace

int treat_ovta_enter_amt_cmd(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("treat_ovta_enter_amt_cmd Invalid parameter .");
        return kRetNullArg;
    }
    std::span<const uint8_t> frame(row->temp_msg);
    auto amt_mode = static_cast<uint8_t>(bytes::get_le32(frame, kEnterOffMode));
    char name[kWfNameFieldSize + 1] = {};
    memcpy(name, frame.data() + kEnterOffWfName, kWfNameFieldSize);
    log_dbg("treat_ovta_enter_amt_cmd  amt_mode:%d, wf_name:%s", amt_mode, name);
    if (strlen(name) == kWfNameFieldSize && frame[kEnterOffWfName + kWfNameFieldSize] != 0) {
        log_dbg("treat_ovta_enter_amt_cmd wf_name longer than %u characters, cut to the %u of the load request.",
                static_cast<unsigned>(kWfNameFieldSize), static_cast<unsigned>(kWfNameFieldSize));
    }
    return send_amt_load_req_msg(amt_mode, name);
}

int treat_wfmgr_amt_load_cnf_msg(AmtChannel* row) {
    if (row == nullptr) return kRetNullArg;
    VerboseScope scope("treat_wfmgr_amt_load_cnf_msg");
    std::span<const uint8_t> msg = wf_received_message(*row);
    uint32_t result = kResultFailed;
    if (msg.size() <= kLoadCnfOffCause) {
        // Without error_cause the load cannot be taken as done; the PC still
        // gets its answer, and the current wf_id stays.
        log_dbg("treat_wfmgr_amt_load_cnf_msg message of %u bytes holds no wf_id and error_cause: taken as failed.",
                static_cast<unsigned>(msg.size()));
    } else {
        uint32_t wf_id = bytes::get_le32(msg, kLoadCnfOffWfId);
        uint8_t error_cause = msg[kLoadCnfOffCause];
        log_dbg("treat_wfmgr_amt_load_cnf_msg ,error_cause:%d,wf_id:%d.", error_cause, static_cast<int>(wf_id));
        if (error_cause == 0) {
            set_wf_id(wf_id);
            result = kResultDone;
        }
    }
    return send_enter_amt_rsp(result);
}
