// dispatch_msg_ex runs on the PC transfer thread, one frame at a time, with
// the frame in the row's temp_msg (zeroed behind the frame).
#include "protocol/pc_dispatch.hpp"

#include <cerrno>
#include <cstring>

#include "wire/bytes.hpp"
#include "wire/pc_commands.hpp"
#include "protocol/verbose_scope.hpp"
#include "protocol/wf_msg.hpp"
#include "services/card_capacity.hpp"
#include "services/enter_amt.hpp"
#include "services/identity.hpp"
#include "services/table_flash.hpp"
#include "services/test_result.hpp"
#include "services/wf_id.hpp"

AmtPayloadStore amt_info_trans_req_store{};
AmtPayloadStore amt_info_trans_cnf_store{};

namespace {

constexpr size_t kInfoTransReqBufSize = 4196;

// The agent's own commands; every other number up to 65535 goes to wfmgr.
const PcCommand kPcCommands[] = {
    {wire::kCmdEnterAmt, "treat_ovta_enter_amt_cmd", treat_ovta_enter_amt_cmd},
    {wire::kCmdVersion, "treat_version_cmd", treat_version_cmd},
    {wire::kCmdReadTable, "treat_read_table_flash_cmd", treat_read_table_flash_cmd},
    {wire::kCmdWriteTable, "treat_write_table_flash_cmd", treat_write_table_flash_cmd},
    {wire::kCmdReadDate, "treat_read_outdate_cmd", treat_read_outdate_cmd},
    {wire::kCmdWriteDate, "treat_write_outdate_cmd", treat_write_outdate_cmd},
    {wire::kCmdReadBoard, "treat_read_board_cmd", treat_read_board_cmd},
    {wire::kCmdWriteBoard, "treat_write_board_cmd", treat_write_board_cmd},
    {wire::kCmdReadResult, "treat_read_test_result_cmd", treat_read_test_result_cmd},
    {wire::kCmdWriteResult, "treat_write_test_result_cmd", treat_write_test_result_cmd},
    {wire::kCmdCard, "treat_readcapability_card_cmd", treat_readcapability_card_cmd},
};

// Copies cmd, body and frame_crc of the frame into the store. False when the
// frame has nothing to forward or would not fit the store.
bool get_amt_req_valid_data(const AmtChannel& row) {
    VerboseScope scope("get_amt_req_valid_data");
    if (row.temp_msg_process_len == 0) {
        log_dbg("get_amt_req_valid_data invalide parameter.");
        return false;
    }
    uint32_t frame_len = bytes::get_le32(row.temp_msg, kPcOffFrameLen);
    uint32_t len = frame_len - 4;
    if (frame_len < 8 || len > sizeof(amt_info_trans_req_store.data) ||
        kPcOffCmd + static_cast<size_t>(len) > static_cast<size_t>(row.temp_msg_process_len)) {
        log_dbg("get_amt_req_valid_data payload of %u bytes does not fit the store (%u), cmd %u not forwarded.", len,
                static_cast<unsigned>(sizeof(amt_info_trans_req_store.data)), row.m_msg_cmd);
        return false;
    }
    amt_info_trans_req_store.len = len;
    memcpy(amt_info_trans_req_store.data, row.temp_msg + kPcOffCmd, len);
    return true;
}

}  // namespace

const PcCommand* find_pc_command(uint32_t cmd) {
    for (const PcCommand& c : kPcCommands) {
        if (c.cmd == cmd) return &c;
    }
    return nullptr;
}

int amt_handle_send_pre_rsp_for_pc() {
    VerboseScope scope("amt_handle_send_pre_rsp_for_pc");
    return write_msg_to_socket(amt_pre_response, sizeof(amt_pre_response), kChannelPc);
}

int send_amt_info_trans_req_msg(uint32_t wf_id) {
    VerboseScope scope("send_amt_info_trans_req_msg");
    uint8_t buf[kInfoTransReqBufSize] = {};
    std::span<uint8_t> msg(buf);
    if (add_wf_general_msg(buf, sizeof(buf), kWfInfoTransReq) != 0) {
        log_dbg("construct add_wf_general_msg failure.");
        return -1;
    }
    uint32_t len = amt_info_trans_req_store.len;
    if (len > sizeof(buf) - kWfHeaderLen) {
        log_dbg("send_amt_info_trans_req_msg payload of %u bytes too large.", len);
        return -1;
    }
    bytes::put_le32(msg, kWfOffWfId, wf_id);
    memcpy(buf + kWfOffBody, amt_info_trans_req_store.data, len);
    bytes::put_le32(msg, kWfOffBodyLen, len);
    bytes::put_le32(msg, kWfOffTotalLen, len + static_cast<uint32_t>(kWfHeaderLen));
    uint32_t remainder = 0;
    if (modify_total_len_by_mod4(buf, sizeof(buf), &remainder) != 0) {
        log_dbg("call modify_total_len_by_mod4 failure.");
        return -1;
    }
    uint32_t total = bytes::get_le32(msg, kWfOffTotalLen);
    log_dbg("send_amt_info_trans_req_msg msg_len:%d.", static_cast<int>(total));
    int r = write_msg_to_socket(buf, static_cast<int32_t>(total), kChannelWfmgr);
    if (r != 0) {
        log_dbg("write_msg_to_socket failure error:%d-%s", errno, strerror(errno));
        return r;
    }
    return 0;
}

int treat_default_msg_ex(AmtChannel* row) {
    VerboseScope scope("treat_default_msg_ex");
    if (!get_amt_req_valid_data(*row)) return -1;
    return send_amt_info_trans_req_msg(get_wf_id());
}

int dispatch_msg_ex(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("dispatch_msg invalid parameter.");
        return -1;
    }
    if (verbose_log()) {
        log_dbg("type_id:%d, m_msg_cmd:%lu.", row->type_id, static_cast<unsigned long>(row->m_msg_cmd));
    }
    int r = amt_handle_send_pre_rsp_for_pc();
    if (r != 0) {
        log_dbg("amt_handle_send_pre_rsp_for_pc return err. return value:%d.", r);
        return -1;
    }
    if (row->m_msg_cmd > kPcCmdMax) {
        log_dbg("type_id:%d, m_msg_cmd(%lu) is not valid.", row->type_id, static_cast<unsigned long>(row->m_msg_cmd));
        return 0;
    }
    if (const PcCommand* command = find_pc_command(row->m_msg_cmd)) {
        VerboseScope scope(command->name);
        command->handler(row);
    } else {
        treat_default_msg_ex(row);
    }
    return 0;
}
