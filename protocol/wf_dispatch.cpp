// dispatch_msg runs on the wfmgr transfer thread, one message at a time, with
// the message in the row's temp_msg. temp_msg is not cleared between messages,
// so no handler reads past the message it was given (temp_msg_process_len):
// a field that the message does not hold is refused, never taken from what an
// earlier, longer message left behind.
#include "protocol/wf_dispatch.hpp"

#include <cerrno>
#include <cstring>

#include "wire/bytes.hpp"
#include "process/config.hpp"
#include "protocol/pc_dispatch.hpp"
#include "protocol/verbose_scope.hpp"
#include "protocol/wf_msg.hpp"
#include "services/enter_amt.hpp"
#include "services/rf_file_service.hpp"
#include "services/rftab_list.hpp"

namespace {


std::span<const uint8_t> message_of(const AmtChannel& row) {
    size_t len = row.temp_msg_process_len > 0 ? static_cast<size_t>(row.temp_msg_process_len) : 0;
    return {row.temp_msg, len < kTempMsgSize ? len : kTempMsgSize};
}

// The text of a path field that starts at `off`: the bytes up to the first
// zero, the field's end (`field` bytes) or the message's end, whichever comes
// first, cut to the 159 characters a base directory holds. False when the
// message ends before the field starts.
bool path_field(std::span<const uint8_t> msg, size_t off, size_t field, char (&out)[kCfgPathSize], bool* cut) {
    memset(out, 0, sizeof(out));
    *cut = false;
    if (off > msg.size()) return false;
    size_t avail = msg.size() - off < field ? msg.size() - off : field;
    size_t len = strnlen(reinterpret_cast<const char*>(msg.data() + off), avail);
    if (len >= kCfgPathSize) {
        len = kCfgPathSize - 1;
        *cut = true;
    }
    memcpy(out, msg.data() + off, len);
    return true;
}

}  // namespace

int send_amt_info_to_pc() {
    VerboseScope scope("send_amt_info_to_pc");
    AmtPayloadStore& store = amt_info_trans_cnf_store;
    if (store.len == 0) store.len = get_amt_msg_len(store.data);
    if (store.len == 0 || store.len > sizeof(store.data)) {
        log_dbg("%d", 1);
        return kRetInvalidParam;
    }
    int r = write_msg_to_socket(store.data, static_cast<int32_t>(store.len), kChannelPc);
    if (r != 0) {
        log_dbg("write_msg_to_socket failure error:%d-%s", errno, strerror(errno));
        return r;
    }
    if (verbose_log()) pub_util_log_hex("head data:", store.data, store.len < 100 ? store.len : 100, 1500);
    return 0;
}

int treat_default_msg(AmtChannel* row) {
    std::span<const uint8_t> msg = message_of(*row);
    log_dbg("treat_default_msg type_id:%d, cmd_id:0x%x, wf_id:%d.", row->type_id, bytes::get_le32(msg, kWfOffMsgId),
            static_cast<int>(bytes::get_le32(msg, kWfOffWfId)));
    return 0;
}

int treat_wfmgr_amt_info_trans_cnf_msg(AmtChannel* row) {
    VerboseScope scope("treat_wfmgr_amt_info_trans_cnf_msg");
    std::span<const uint8_t> msg = message_of(*row);
    uint32_t body_len = bytes::get_le32(msg, kWfOffBodyLen);
    uint32_t wf_id = bytes::get_le32(msg, kWfOffWfId);
    log_dbg("treat_wfmgr_amt_info_trans_cnf_msg ,body_len:%d,wf_id:%d.", static_cast<int>(body_len),
            static_cast<int>(wf_id));
    // The word at offset 32 is read whatever body_len says: wfmgr's file
    // requests are read by fixed offsets, and body_len is not one of their
    // fields. The file service checks each field, and the data of a write,
    // against the message that arrived. A message that ends before offset 36
    // has no such word and is an answer for the PC.
    uint32_t sub = bytes::get_le32(msg, kInfoCnfOffSubCmd);
    if (sub == kFileReadSubCmd) return treat_wfmgr_amt_file_read_req_msg(row);
    if (sub == kFileModifySubCmd) return treat_wfmgr_amt_file_modify_req_msg(row);
    // An answer for the PC is body_len bytes: all of them must have come.
    if (body_len == 0) {
        log_dbg("info transfer confirm with an empty body: nothing to pass on.");
        return kRetInvalidParam;
    }
    const size_t body_present = msg.size() > kWfHeaderLen ? msg.size() - kWfHeaderLen : 0;
    if (body_len > body_present) {
        log_dbg("info transfer confirm body_len:%u beyond the message body of %u bytes: dropped.", body_len,
                static_cast<unsigned>(body_present));
        return kRetBadSize;
    }
    AmtPayloadStore& store = amt_info_trans_cnf_store;
    if (body_len > kAmtStorePayloadMaxForPc) {
        log_dbg("info transfer confirm body_len:%u above %u for the PC: dropped.", body_len,
                static_cast<unsigned>(kAmtStorePayloadMaxForPc));
        return kRetBadSize;
    }
    store.len = body_len;
    memcpy(store.data, msg.data() + kWfOffBody, body_len);
    if (add_amt_head(&store) != 0) return kRetInvalidParam;
    send_amt_info_to_pc();
    return 0;
}

int treat_wfmgr_amt_relate_info_ind_msg(AmtChannel* row) {
    VerboseScope scope("treat_wfmgr_amt_relate_info_ind_msg");
    std::span<const uint8_t> msg = message_of(*row);
    char amt_path[kCfgPathSize];
    char rf_path[kCfgPathSize];
    bool amt_cut = false;
    bool rf_cut = false;
    // rf_code_file_path runs from offset 380 to the message's end: a message
    // that ends before it has lost its tail, and both directories stay.
    if (!path_field(msg, kRelateOffAmtPath, kRelatePathSize, amt_path, &amt_cut) ||
        !path_field(msg, kRelateOffRfPath, msg.size(), rf_path, &rf_cut)) {
        log_dbg("relate info indication of %u bytes ends before rf_code_file_path: ignored.",
                static_cast<unsigned>(msg.size()));
        return kRetInvalidParam;
    }
    // A path that fills its field without a terminator is taken up to the
    // 159 characters a directory holds, as the rest of the service reads it.
    if (amt_cut) log_dbg("relate info indication amt_file_path without terminator: cut to 159 characters.");
    if (rf_cut) log_dbg("relate info indication rf_code_file_path without terminator: cut to 159 characters.");
    cfg_set_rf_relate_path(rf_path);
    if (amt_path[0] != '\0') cfg_set_amt_relate_path(amt_path);
    if (verbose_log()) {
        char wf_name[kRelateWfNameSize + 1] = {};
        char wf_path[kRelateWfPathSize + 1] = {};
        memcpy(wf_name, msg.data() + kRelateOffWfName, kRelateWfNameSize);
        memcpy(wf_path, msg.data() + kRelateOffWfPath, kRelateWfPathSize);
        log_dbg("status:%d, wf_id:%d, wf_name:%s, wf_path:%s, rf_code_file_path:%s, amt_file_path:%s, .",
                msg[kRelateOffStatus], static_cast<int>(bytes::get_le32(msg, kRelateOffWfId)), wf_name, wf_path,
                rf_path, amt_path);
        char amt[kCfgPathSize];
        cfg_get_amt_relate_path(amt);
        log_dbg("config_file_st.m_amt_relate_path:%s, .", amt);
    }
    return 0;
}

int treat_wfmgr_amt_res_info_ind_msg(AmtChannel* row) {
    VerboseScope scope("treat_wfmgr_amt_res_info_ind_msg");
    std::span<const uint8_t> msg = message_of(*row);
    if (msg.size() < kResOffRows) {
        log_dbg("res info indication of %u bytes holds no len: ignored.", static_cast<unsigned>(msg.size()));
        return kRetBadSize;
    }
    uint32_t len = bytes::get_le32(msg, kResOffLen);
    const size_t present = msg.size() - kResOffRows;
    if (len > present) {
        // The rows that came whole are as good as in a message that told
        // their size right; a row cut off by the message's end is not taken.
        const size_t whole = present - present % kRftabRowSize;
        log_dbg("res info indication len:%u but the message holds %u bytes of rows: the %u whole rows that came "
                "are taken.",
                len, static_cast<unsigned>(present), static_cast<unsigned>(whole / kRftabRowSize));
        len = static_cast<uint32_t>(whole);
    }
    if (len > kRftabListSize) {
        log_dbg("res info indication len:%u above %u: only the first %u rows are taken.", len,
                static_cast<unsigned>(kRftabListSize), static_cast<unsigned>(kRftabMaxRows));
        len = static_cast<uint32_t>(kRftabListSize);
    }
    uint32_t count = rftab_list_replace(msg.data() + kResOffRows, len);
    if (verbose_log()) log_dbg("len:%d, g_wfmgr_rftab_info_count:%d.", static_cast<int>(len), static_cast<int>(count));
    return 0;
}

int dispatch_msg(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("dispatch_msg invalid parameter.");
        return -1;
    }
    if (verbose_log()) {
        log_dbg("type_id:%d, m_msg_cmd:%lu.", row->type_id, static_cast<unsigned long>(row->m_msg_cmd));
    }
    switch (row->m_msg_cmd) {
        case kWfLoadCnf: treat_wfmgr_amt_load_cnf_msg(row); break;
        case kWfInfoTransCnf: treat_wfmgr_amt_info_trans_cnf_msg(row); break;
        case kWfModifyReq: treat_wfmgr_amt_modify_req_msg(row); break;
        case kWfInfoReadReq: treat_wfmgr_amt_info_read_req_msg(row); break;
        case kWfRelateInfoInd: treat_wfmgr_amt_relate_info_ind_msg(row); break;
        case kWfResInfoInd: treat_wfmgr_amt_res_info_ind_msg(row); break;
        default: treat_default_msg(row); break;
    }
    return 0;
}
