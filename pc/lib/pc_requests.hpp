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

namespace tools {

// Command numbers. Every answer is numbered cmd + 1.
constexpr uint32_t kCmdEnterAmt = 17;
constexpr uint32_t kCmdVersion = 45;
constexpr uint32_t kCmdReadTable = 61;
constexpr uint32_t kCmdWriteTable = 63;
constexpr uint32_t kCmdReadDate = 65;
constexpr uint32_t kCmdWriteDate = 67;
constexpr uint32_t kCmdReadBoard = 85;
constexpr uint32_t kCmdWriteBoard = 87;
constexpr uint32_t kCmdReadResult = 89;
constexpr uint32_t kCmdWriteResult = 91;
constexpr uint32_t kCmdCard = 137;

constexpr uint32_t response_number(uint32_t cmd) { return cmd + 1; }

// Longest wf_name: the load request that the agent makes of command 17 has a
// field of 64 bytes for it.
constexpr size_t kWfNameMax = 63;

// Largest slice of one table read or write. A write frame is 32 bytes around
// its data and must fit the agent's 40960-byte message buffer; a read answer
// is 24 bytes around its data, so the same size serves both.
constexpr uint32_t kTableSliceMax = 40960 - 32;

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
