// The messages a simulated wfmgr sends and reads, built on the daemon's own
// header builder (protocol/wf_msg.hpp). Offsets count from total_len.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tools {

// Field sizes of the relate info indication.
constexpr size_t kWfNameLen = 64;
constexpr size_t kWfPathLen = 128;
constexpr size_t kAmtPathLen = 160;
constexpr size_t kRfPathLen = 160;  // from offset 380 to the end of the message

// One row of the RF table list: table_type u16 at 0, name[64] at 8.
constexpr size_t kRftabRowLen = 72;
struct RftabRow {
    uint16_t table_type = 0;
    std::string name;
};

struct RelateInfo {
    uint8_t status = 0;
    uint32_t wf_id = 0;
    std::string wf_name;
    std::string wf_path;
    std::string amt_file_path;
    std::string rf_code_file_path;
};

// 0x4000d: status at 20, wf_id at 24, wf_name at 28, wf_path at 92,
// amt_file_path at 220, rf_code_file_path at 380. Texts longer than their
// field are cut so that a terminator always fits.
std::vector<uint8_t> build_relate_info_ind(const RelateInfo& info);
// 0x4000e: len at 20, then the rows from 24.
std::vector<uint8_t> build_res_info_ind(std::span<const RftabRow> rows);
// 0x40002: wf_id at 20 (and in the header), error_cause at 24.
std::vector<uint8_t> build_load_cnf(uint32_t wf_id, uint8_t error_cause);
// 0x40004 answering an info transfer request: the request's body without the
// PC frame's CRC behind it, its first word (the PC cmd) raised by one, and
// the request's wf_id. Nothing when the request carries no cmd.
std::optional<std::vector<uint8_t>> build_info_trans_cnf_echo(std::span<const uint8_t> request);

// File requests of wfmgr to the agent and the agent's confirms. Behind the
// header: table_type at 20, offset at 24, len at 28, data from 32.
constexpr uint32_t kFileReadCnfWord = 154;  // first body word of the agent's answer to a 153 read
// The most a read may ask for: the agent's confirm, 36 bytes and up to 3
// more around the data, must stay within a message of 40960 bytes.
constexpr uint32_t kFileReadMax = 40960 - 36 - 3;
// The most data a modify request may carry within 40960 bytes.
constexpr uint32_t kFileModifyMax = 40960 - 32;

// 0x40007, info read: len bytes at offset of the RF table table_type.
std::vector<uint8_t> build_info_read_req(uint32_t wf_id, uint32_t table_type, uint32_t offset, uint32_t len);
// 0x40005, modify: data written at offset of the RF table table_type.
std::vector<uint8_t> build_modify_req(uint32_t wf_id, uint32_t table_type, uint32_t offset,
                                      std::span<const uint8_t> data);
// 0x40004 with 153 at offset 32, read of amt.bin: len bytes at offset.
// table_type at 20 is not read by the agent and goes out as 0.
std::vector<uint8_t> build_amt_read_req(uint32_t wf_id, uint32_t offset, uint32_t len);
// 0x40004 with 155 at offset 32, modify through the confirm form. The agent
// writes the len bytes from offset 32, so that the word 155 itself is the
// first thing written: the file receives 9B 00 00 00 and then `data`, and
// len counts both.
std::vector<uint8_t> build_confirm_modify_req(uint32_t wf_id, uint32_t table_type, uint32_t offset,
                                              std::span<const uint8_t> data);

// A confirm of the agent's file service: 0x40008 (info read), 0x40003 with
// the word 154 (amt.bin read) or 0x40006 (modify, from either form).
struct FileConfirm {
    uint32_t msg_id = 0;
    uint32_t wf_id = 0;
    uint32_t table_type = 0;  // 154 in an amt.bin read confirm
    uint32_t offset = 0;
    uint32_t len = 0;    // what the request asked for
    uint32_t count = 0;  // readed_len or writed_len: what was done; 0 for a failed access
    std::vector<uint8_t> data;  // a read confirm's data, as much of count as the message holds
    bool is_read() const;
    bool data_cut() const { return is_read() && data.size() < count; }
};

// Nothing for a message that is no file confirm or too short for its fields.
std::optional<FileConfirm> decode_file_confirm(std::span<const uint8_t> msg);

// The header fields of a whole message.
uint32_t wf_total_len(std::span<const uint8_t> msg);
uint32_t wf_msg_id(std::span<const uint8_t> msg);
uint32_t wf_msg_wf_id(std::span<const uint8_t> msg);
uint32_t wf_body_len(std::span<const uint8_t> msg);

// One line: name, id and the fields that matter for that id.
std::string describe_wf_msg(std::span<const uint8_t> msg);

// Cuts messages out of a stream by total_len. A total_len below 20 or above
// 40960 leaves the stream out of step for good: the reader then reports
// broken() and hands out nothing more.
class WfMsgReader {
public:
    void feed(std::span<const uint8_t> bytes);
    std::optional<std::vector<uint8_t>> next();
    bool broken() const { return broken_; }
    uint32_t bad_total_len() const { return bad_total_len_; }

private:
    std::vector<uint8_t> pending_;
    bool broken_ = false;
    uint32_t bad_total_len_ = 0;
};

}  // namespace tools
