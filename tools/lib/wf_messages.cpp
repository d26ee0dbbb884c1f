#include "tools/lib/wf_messages.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "process/bytes.hpp"
#include "protocol/wf_msg.hpp"
#include "tools/lib/hex_text.hpp"

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
            snprintf(line, sizeof(line), " cmd %u", bytes::get_le32(msg, kWfOffBody));
            out += line;
            out += " body " + body_hex(msg);
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
