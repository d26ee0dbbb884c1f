#include "tools/lib/wf_messages.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "wire/bytes.hpp"
#include "protocol/wf_dispatch.hpp"
#include "protocol/wf_msg.hpp"
#include "pc/lib/hex_text.hpp"

namespace tools {

namespace {

constexpr size_t kRelateInfoLen = kRelateOffRfPath + kRfPathLen;
constexpr size_t kRftabNameAt = 8;
constexpr size_t kRftabNameLen = 64;

constexpr size_t kOffLoadWfId = 20;
constexpr size_t kOffLoadErrorCause = 24;
constexpr size_t kLoadCnfLen = 28;

constexpr size_t kOffLoadReqName = 20;
constexpr size_t kOffLoadReqMode = 84;

constexpr size_t kHexShown = 64;  // body bytes shown in a log line

// File requests and confirms.
constexpr size_t kFileOffTable = 20;
constexpr size_t kFileOffOffset = 24;
constexpr size_t kFileOffLen = 28;
constexpr size_t kFileOffData = 32;  // request data; the count word in a confirm
constexpr size_t kCnfOffData = 36;
constexpr size_t kModifyCnfLen = 36;
constexpr size_t kFileReqBodyMin = 16;  // table_type, offset, len, and 153 or 155

// A message of len bytes, zeroed, with the header for msg_id and total_len
// and body_len set for that size.
std::vector<uint8_t> new_msg(uint32_t msg_id, size_t len) {
    std::vector<uint8_t> msg(len);
    add_wf_general_msg(msg.data(), static_cast<int32_t>(msg.size()), msg_id);
    bytes::put_le32(msg, kWfOffTotalLen, static_cast<uint32_t>(len));
    bytes::put_le32(msg, kWfOffBodyLen, static_cast<uint32_t>(len - kWfHeaderLen));
    return msg;
}

void put_text(std::span<uint8_t> msg, size_t off, size_t field, const std::string& text) {
    size_t n = std::min(text.size(), field - 1);
    memcpy(msg.data() + off, text.data(), n);
}

std::string get_text(std::span<const uint8_t> msg, size_t off, size_t field) {
    if (off >= msg.size()) return {};
    field = std::min(field, msg.size() - off);
    const auto* p = reinterpret_cast<const char*>(msg.data() + off);
    return std::string(p, strnlen(p, field));
}

const char* msg_name(uint32_t id) {
    switch (id) {
        case kWfLoadReq: return "load request";
        case kWfLoadCnf: return "load confirm";
        case kWfInfoTransReq: return "info transfer request";
        case kWfInfoTransCnf: return "info transfer confirm";
        case kWfModifyReq: return "modify request";
        case kWfModifyCnf: return "modify confirm";
        case kWfInfoReadReq: return "info read request";
        case kWfInfoReadCnf: return "info read confirm";
        case kWfRelateInfoInd: return "relate info indication";
        case kWfResInfoInd: return "res info indication";
        default: return "unknown message";
    }
}

std::string body_hex(std::span<const uint8_t> msg) {
    size_t len = std::min<size_t>(wf_body_len(msg), msg.size() > kWfHeaderLen ? msg.size() - kWfHeaderLen : 0);
    std::string out = to_hex(msg.subspan(kWfHeaderLen, std::min(len, kHexShown)));
    if (len > kHexShown) out += " ...";
    return out;
}

std::string data_hex(std::span<const uint8_t> data) {
    std::string out = to_hex(data.first(std::min(data.size(), kHexShown)));
    if (data.size() > kHexShown) out += " ...";
    return out;
}

// A file request: the three words, then `data`, with `lead` in front of the
// data when there is one.
std::vector<uint8_t> file_req(uint32_t msg_id, uint32_t wf_id, uint32_t table_type, uint32_t offset, uint32_t len,
                              std::optional<uint32_t> lead, std::span<const uint8_t> data) {
    const size_t lead_len = lead ? 4 : 0;
    std::vector<uint8_t> msg = new_msg(msg_id, kFileOffData + lead_len + data.size());
    bytes::put_le32(msg, kWfOffWfId, wf_id);
    bytes::put_le32(msg, kFileOffTable, table_type);
    bytes::put_le32(msg, kFileOffOffset, offset);
    bytes::put_le32(msg, kFileOffLen, len);
    if (lead) bytes::put_le32(msg, kFileOffData, *lead);
    std::copy(data.begin(), data.end(), msg.begin() + static_cast<std::ptrdiff_t>(kFileOffData + lead_len));
    return msg;
}

std::string request_fields(std::span<const uint8_t> msg, bool with_table) {
    char line[160];
    std::string out;
    if (with_table) {
        snprintf(line, sizeof(line), " table_type %u", bytes::get_le32(msg, kFileOffTable));
        out += line;
    }
    snprintf(line, sizeof(line), " offset %u len %u", bytes::get_le32(msg, kFileOffOffset),
             bytes::get_le32(msg, kFileOffLen));
    return out + line;
}

std::string confirm_fields(const FileConfirm& c) {
    char line[160];
    std::string out = c.msg_id == kWfInfoTransReq ? " (file read confirm, 154)" : "";
    if (c.msg_id != kWfInfoTransReq) {
        snprintf(line, sizeof(line), " table_type %u", c.table_type);
        out += line;
    }
    snprintf(line, sizeof(line), " offset %u len %u %s %u", c.offset, c.len, c.is_read() ? "readed_len" : "writed_len",
             c.count);
    out += line;
    if (c.is_read()) out += " data " + data_hex(c.data);
    if (c.data_cut()) {
        snprintf(line, sizeof(line), " (the message holds only %zu of them)", c.data.size());
        out += line;
    }
    return out;
}

// The part of a log line that tells a file request or confirm, or else a
// forwarded command or its answer, which share two of the ids.
std::string file_traffic_fields(std::span<const uint8_t> msg) {
    if (std::optional<FileConfirm> c = decode_file_confirm(msg)) return confirm_fields(*c);
    const std::span<const uint8_t> data =
        msg.size() > kFileOffData ? msg.subspan(kFileOffData) : std::span<const uint8_t>();
    const uint32_t id = wf_msg_id(msg);
    if (id == kWfInfoReadReq) return request_fields(msg, true);
    if (id == kWfModifyReq) return request_fields(msg, true) + " data " + data_hex(data);
    if (id == kWfInfoTransCnf && wf_body_len(msg) >= kFileReqBodyMin) {
        const uint32_t sub = bytes::get_le32(msg, kInfoCnfOffSubCmd);
        if (sub == kFileReadSubCmd) return " (amt.bin read, 153)" + request_fields(msg, false);
        if (sub == kFileModifySubCmd) {
            return " (modify through the confirm form, 155)" + request_fields(msg, true) + " data " + data_hex(data);
        }
    }
    char line[32];
    snprintf(line, sizeof(line), " cmd %u body ", bytes::get_le32(msg, kWfOffBody));
    return line + body_hex(msg);
}

}  // namespace

std::vector<uint8_t> build_relate_info_ind(const RelateInfo& info) {
    std::vector<uint8_t> msg = new_msg(kWfRelateInfoInd, kRelateInfoLen);
    msg[kRelateOffStatus] = info.status;
    bytes::put_le32(msg, kRelateOffWfId, info.wf_id);
    put_text(msg, kRelateOffWfName, kWfNameLen, info.wf_name);
    put_text(msg, kRelateOffWfPath, kWfPathLen, info.wf_path);
    put_text(msg, kRelateOffAmtPath, kAmtPathLen, info.amt_file_path);
    put_text(msg, kRelateOffRfPath, kRfPathLen, info.rf_code_file_path);
    return msg;
}

std::vector<uint8_t> build_res_info_ind(std::span<const RftabRow> rows) {
    const size_t len = rows.size() * kRftabRowLen;
    std::vector<uint8_t> msg = new_msg(kWfResInfoInd, kResOffRows + len);
    bytes::put_le32(msg, kResOffLen, static_cast<uint32_t>(len));
    for (size_t i = 0; i < rows.size(); ++i) {
        const size_t row = kResOffRows + i * kRftabRowLen;
        bytes::put_le16(msg, row, rows[i].table_type);
        put_text(msg, row + kRftabNameAt, kRftabNameLen, rows[i].name);
    }
    return msg;
}

std::vector<uint8_t> build_load_cnf(uint32_t wf_id, uint8_t error_cause) {
    std::vector<uint8_t> msg = new_msg(kWfLoadCnf, kLoadCnfLen);
    bytes::put_le32(msg, kWfOffWfId, wf_id);
    bytes::put_le32(msg, kOffLoadWfId, wf_id);
    msg[kOffLoadErrorCause] = error_cause;
    return msg;
}

std::optional<std::vector<uint8_t>> build_info_trans_cnf_echo(std::span<const uint8_t> request) {
    size_t body = std::min<size_t>(wf_body_len(request), request.size() - std::min(request.size(), kWfHeaderLen));
    if (body < 4) return std::nullopt;
    // cmd, body, frame_crc: the CRC is the PC's and is no part of the answer.
    // A frame with frame_len 8 was forwarded as its cmd word alone.
    const size_t echo = body >= 8 ? body - 4 : 4;
    std::vector<uint8_t> msg = new_msg(kWfInfoTransCnf, kWfHeaderLen + echo);
    std::copy_n(request.begin() + kWfHeaderLen, echo, msg.begin() + kWfHeaderLen);
    bytes::put_le32(msg, kWfOffBody, bytes::get_le32(request, kWfOffBody) + 1);
    bytes::put_le32(msg, kWfOffWfId, wf_msg_wf_id(request));
    return msg;
}

std::vector<uint8_t> build_info_read_req(uint32_t wf_id, uint32_t table_type, uint32_t offset, uint32_t len) {
    return file_req(kWfInfoReadReq, wf_id, table_type, offset, len, std::nullopt, {});
}

std::vector<uint8_t> build_modify_req(uint32_t wf_id, uint32_t table_type, uint32_t offset,
                                      std::span<const uint8_t> data) {
    return file_req(kWfModifyReq, wf_id, table_type, offset, static_cast<uint32_t>(data.size()), std::nullopt, data);
}

std::vector<uint8_t> build_amt_read_req(uint32_t wf_id, uint32_t offset, uint32_t len) {
    return file_req(kWfInfoTransCnf, wf_id, 0, offset, len, kFileReadSubCmd, {});
}

std::vector<uint8_t> build_confirm_modify_req(uint32_t wf_id, uint32_t table_type, uint32_t offset,
                                              std::span<const uint8_t> data) {
    return file_req(kWfInfoTransCnf, wf_id, table_type, offset, static_cast<uint32_t>(4 + data.size()),
                    kFileModifySubCmd, data);
}

bool FileConfirm::is_read() const { return msg_id != kWfModifyCnf; }

std::optional<FileConfirm> decode_file_confirm(std::span<const uint8_t> msg) {
    if (msg.size() < kModifyCnfLen) return std::nullopt;
    FileConfirm c;
    c.msg_id = wf_msg_id(msg);
    c.table_type = bytes::get_le32(msg, kFileOffTable);
    const bool read = c.msg_id == kWfInfoReadCnf || (c.msg_id == kWfInfoTransReq && c.table_type == kFileReadCnfWord);
    if (!read && c.msg_id != kWfModifyCnf) return std::nullopt;
    c.wf_id = wf_msg_wf_id(msg);
    c.offset = bytes::get_le32(msg, kFileOffOffset);
    c.len = bytes::get_le32(msg, kFileOffLen);
    c.count = bytes::get_le32(msg, kFileOffData);
    if (read) {
        // total_len can run up to 3 bytes past the data; the count decides.
        const size_t there = std::min<size_t>(c.count, msg.size() - kCnfOffData);
        c.data.assign(msg.begin() + kCnfOffData, msg.begin() + static_cast<std::ptrdiff_t>(kCnfOffData + there));
    }
    return c;
}

uint32_t wf_total_len(std::span<const uint8_t> msg) { return bytes::get_le32(msg, kWfOffTotalLen); }
uint32_t wf_msg_id(std::span<const uint8_t> msg) { return bytes::get_le32(msg, kWfOffMsgId); }
uint32_t wf_msg_wf_id(std::span<const uint8_t> msg) { return bytes::get_le32(msg, kWfOffWfId); }
uint32_t wf_body_len(std::span<const uint8_t> msg) { return bytes::get_le32(msg, kWfOffBodyLen); }

std::string describe_wf_msg(std::span<const uint8_t> msg) {
    const uint32_t id = wf_msg_id(msg);
    char line[640];
    snprintf(line, sizeof(line), "%s 0x%x total_len %u wf_id 0x%x body_len %u", msg_name(id), id, wf_total_len(msg),
             wf_msg_wf_id(msg), wf_body_len(msg));
    std::string out = line;
    switch (id) {
        case kWfLoadReq:
            out += " wf_name \"" + get_text(msg, kOffLoadReqName, kWfNameLen) + "\"";
            snprintf(line, sizeof(line), " amt_mode %u", kOffLoadReqMode < msg.size() ? msg[kOffLoadReqMode] : 0u);
            out += line;
            break;
        case kWfLoadCnf:
            snprintf(line, sizeof(line), " wf_id %u error_cause %u", bytes::get_le32(msg, kOffLoadWfId),
                     kOffLoadErrorCause < msg.size() ? msg[kOffLoadErrorCause] : 0u);
            out += line;
            break;
        case kWfInfoTransReq:
        case kWfInfoTransCnf:
        case kWfInfoReadReq:
        case kWfInfoReadCnf:
        case kWfModifyReq:
        case kWfModifyCnf:
            out += file_traffic_fields(msg);
            break;
        case kWfRelateInfoInd:
            snprintf(line, sizeof(line), " status %u wf_id %u", kRelateOffStatus < msg.size() ? msg[kRelateOffStatus] : 0u,
                     bytes::get_le32(msg, kRelateOffWfId));
            out += line;
            out += " wf_name \"" + get_text(msg, kRelateOffWfName, kWfNameLen) + "\" wf_path \"" +
                   get_text(msg, kRelateOffWfPath, kWfPathLen) + "\" amt_file_path \"" +
                   get_text(msg, kRelateOffAmtPath, kAmtPathLen) + "\" rf_code_file_path \"" +
                   get_text(msg, kRelateOffRfPath, msg.size()) + "\"";
            break;
        case kWfResInfoInd: {
            const uint32_t len = bytes::get_le32(msg, kResOffLen);
            snprintf(line, sizeof(line), " len %u rows", len);
            out += line;
            for (size_t row = kResOffRows; row + kRftabRowLen <= msg.size() && row < kResOffRows + len;
                 row += kRftabRowLen) {
                snprintf(line, sizeof(line), " %u=", bytes::get_le16(msg, row));
                out += line + get_text(msg, row + kRftabNameAt, kRftabNameLen);
            }
            break;
        }
        default:
            out += " body " + body_hex(msg);
            break;
    }
    return out;
}

void WfMsgReader::feed(std::span<const uint8_t> bytes) {
    if (!broken_) pending_.insert(pending_.end(), bytes.begin(), bytes.end());
}

std::optional<std::vector<uint8_t>> WfMsgReader::next() {
    if (broken_ || pending_.size() < 4) return std::nullopt;
    const uint32_t total = wf_total_len(pending_);
    if (total < kWfHeaderLen || total > kWfMsgLenMax) {
        broken_ = true;
        bad_total_len_ = total;
        pending_.clear();
        return std::nullopt;
    }
    if (pending_.size() < total) return std::nullopt;
    std::vector<uint8_t> msg(pending_.begin(), pending_.begin() + total);
    pending_.erase(pending_.begin(), pending_.begin() + total);
    return msg;
}

}  // namespace tools
