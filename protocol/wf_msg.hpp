// WfMsg: the unit of the link to wfmgr. No marker, no CRC; total_len frames it.
//
//   0  total_len      whole message, header included, after the total-length rule
//   4  wf_id
//   8  wf_reserved_a  0xFFFF
//  10  wf_reserved_b  0xFFFF
//  12  msg_id
//  16  body_len
//  20  body
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t kWfHeaderLen = 20;
constexpr uint32_t kWfMsgLenMax = 40960;  // temp_msg

constexpr uint32_t kWfLoadReq = 0x40001;
constexpr uint32_t kWfLoadCnf = 0x40002;
constexpr uint32_t kWfInfoTransReq = 0x40003;
constexpr uint32_t kWfInfoTransCnf = 0x40004;
constexpr uint32_t kWfModifyReq = 0x40005;
constexpr uint32_t kWfModifyCnf = 0x40006;
constexpr uint32_t kWfInfoReadReq = 0x40007;
constexpr uint32_t kWfInfoReadCnf = 0x40008;
constexpr uint32_t kWfRelateInfoInd = 0x4000d;
constexpr uint32_t kWfResInfoInd = 0x4000e;

constexpr size_t kWfOffTotalLen = 0;
constexpr size_t kWfOffWfId = 4;
constexpr size_t kWfOffReservedA = 8;
constexpr size_t kWfOffReservedB = 10;
constexpr size_t kWfOffMsgId = 12;
constexpr size_t kWfOffBodyLen = 16;
constexpr size_t kWfOffBody = 20;

// Relate info indication 0x4000d: the two base directories.
constexpr size_t kRelateOffStatus = 20;
constexpr size_t kRelateOffWfId = 24;
constexpr size_t kRelateOffWfName = 28;
constexpr size_t kRelateWfNameSize = 64;
constexpr size_t kRelateOffWfPath = 92;
constexpr size_t kRelateWfPathSize = 128;
constexpr size_t kRelateOffAmtPath = 220;
constexpr size_t kRelatePathSize = 160;  // amt_file_path; rf_code_file_path runs to the message end
constexpr size_t kRelateOffRfPath = 380;

// Res info indication 0x4000e: the RF table rows.
constexpr size_t kResOffLen = 20;
constexpr size_t kResOffRows = 24;

// Info transfer confirm 0x40004: the body's fourth word tells file requests.
constexpr size_t kInfoCnfOffSubCmd = 32;

// Writes the six header fields: total_len 20, wf_id all ones, both reserved
// 0xFFFF, msg_id, body_len 0. 0, or -103 for null or a size below 20.
int32_t add_wf_general_msg(uint8_t* buf, int32_t size, uint32_t msg_id);
// The total-length rule: total_len grows by total_len % 4 (the remainder, not
// the complement). The remainder goes back through *remainder. 0, or -103 for
// null, a size below 20, or a result that would not fit the buffer.
int32_t modify_total_len_by_mod4(uint8_t* buf, int32_t size, uint32_t* remainder);
