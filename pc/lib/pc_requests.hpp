// Bodies of the commands that the agent answers itself, as the PC test tool
// sends them. Each is the part of the frame behind cmd (offset 16 on); the
// frame itself comes from build_pc_frame. Integers are little-endian.
//
// Texts go out with a terminating zero byte. The agent takes a date, a board
// number, a test description and a wf_name up to the first zero byte behind
// the text, and without a zero of its own the frame's CRC bytes would run
// into the stored text.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "wire/pc_commands.hpp"

namespace tools {

// Command numbers and limits, as the agent knows them too.
using wire::kCmdCard;
using wire::kCmdEnterAmt;
using wire::kCmdReadBoard;
using wire::kCmdReadDate;
using wire::kCmdReadResult;
using wire::kCmdReadTable;
using wire::kCmdVersion;
using wire::kCmdWriteBoard;
using wire::kCmdWriteDate;
using wire::kCmdWriteResult;
using wire::kCmdWriteTable;
using wire::kTableSliceMax;
using wire::kWfNameMax;
using wire::response_number;

// 17: amt_mode, then the name. Nothing for an empty name (the agent would
// send no answer at all) or one above kWfNameMax.
std::optional<std::vector<uint8_t>> enter_amt_body(uint32_t amt_mode, std::string_view wf_name);
// 45: the word `module`, which the answer echoes.
std::vector<uint8_t> version_body(uint32_t module);
// 61: table_type, offset, len.
std::vector<uint8_t> read_table_body(uint32_t table_type, uint32_t offset, uint32_t len);
// 63: table_type, offset, len, then the len data bytes.
std::vector<uint8_t> write_table_body(uint32_t table_type, uint32_t offset, std::span<const uint8_t> data);
// 67 and 87: the text and a zero byte.
std::vector<uint8_t> text_body(std::string_view text);
// 89: site_no.
std::vector<uint8_t> read_result_body(uint32_t site_no);
// 91: site_no, result, the description and a zero byte.
std::vector<uint8_t> write_result_body(uint32_t site_no, uint32_t result, std::string_view description);

}  // namespace tools
