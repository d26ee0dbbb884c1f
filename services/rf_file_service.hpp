// The file service for wfmgr: 0x40007 and the 153 form of 0x40004 read, 0x40005
// and the 155 form of 0x40004 write. Each runs on the wfmgr transfer thread
// with the request in the row's temp_msg, and answers with one message
// whether the file access worked or not: a failed access shows only as a
// byte count of 0.
//
// Requests (message offsets): wf_id at 4 (echoed), table_type at 20 (not read
// by the 153 form), offset at 24, len at 28, and for the writes the len bytes
// of data from 32 (in the 155 form they begin with the word 155 itself).
// Read confirms 0x40008 (table_type echoed) and 0x40003 (the word 154 in its
// place): table_type, offset, len at 20..31, readed_len at 32, the data from
// 36; total_len readed_len + 36 before the total-length rule, whose added
// bytes are 0. Modify confirm 0x40006: the same fields with writed_len at 32,
// always 36 bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "channel/amt_channel.hpp"

constexpr size_t kFileReqOffTableType = 20;
constexpr size_t kFileReqOffOffset = 24;
constexpr size_t kFileReqOffLen = 28;
constexpr size_t kFileReqOffData = 32;
constexpr size_t kFileCnfOffCount = 32;
constexpr size_t kFileCnfOffData = 36;
constexpr uint32_t kFileReadCnfWord = 154;
constexpr const char* kAmtFileName = "amt.bin";
// The read block: len bytes of data and this much around them (36 in front,
// the up to 3 bytes of the total-length rule behind).
constexpr uint32_t kFileReadMargin = 100;

int treat_wfmgr_amt_info_read_req_msg(AmtChannel* row);
int treat_wfmgr_amt_modify_req_msg(AmtChannel* row);
int treat_wfmgr_amt_file_read_req_msg(AmtChannel* row);
int treat_wfmgr_amt_file_modify_req_msg(AmtChannel* row);

// `msg` is the received message, no byte beyond it. A request too short for
// its fields, or a read whose len + 100 does not fit a positive 32-bit number,
// is answered with 0 bytes. 0, -102 for no message, -118 when the read block
// cannot be had (no answer then), -1 when the answer could not be built, or
// the failure of the send.
int read_rf_file(std::span<const uint8_t> msg);
int read_amt_file(std::span<const uint8_t> msg);
// `data` is the part of msg from offset 32; a len that reaches past it is
// refused with writed_len 0 and no file is touched. A stop during the sync
// answers nobody and returns 0.
int modify_rf_file(std::span<const uint8_t> msg, std::span<const uint8_t> data);
