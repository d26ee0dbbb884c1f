// PC commands 61 and 63: read and write a slice of an RF table file, found by
// table_type in the RF table list. Frame offsets of both requests:
// table_type u32 at 16, offset u32 at 20, len u32 at 24; command 63 carries
// its len bytes of data from 28.
//
// Response 62: result_code at 16, then the n bytes read, then frame_crc
// (frame_len n + 16). Response 64: result_code at 16, frame_crc at 20. A
// transfer is done (result_code 0) when all len bytes moved, else 10.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "channel/amt_channel.hpp"

constexpr uint32_t kRspReadTableFlash = 62;
constexpr uint32_t kRspWriteTableFlash = 64;
constexpr size_t kFlashOffTableType = 16;
constexpr size_t kFlashOffOffset = 20;
constexpr size_t kFlashOffLen = 24;
constexpr size_t kFlashOffData = 28;
constexpr size_t kFlashRspOffData = 20;  // response 62: data behind result_code
// The read buffer is the response frame itself: len bytes of data and this
// much around them (20 in front, frame_crc behind).
constexpr uint32_t kFlashReadMargin = 100;

// The dispatcher's steps for the two commands (the log line of the request,
// then the operation below), on the PC transfer thread.
int treat_read_table_flash_cmd(AmtChannel* row);
int treat_write_table_flash_cmd(AmtChannel* row);

// `message` is the PC row's whole temp_msg: the frame from 0, zeros behind it.
// Answers the PC with response 62 and returns 0 or the failure of the send;
// -1 when the frame could not be built; -102 for a missing message; -118 when
// the read buffer cannot be had, also for a len whose len + 100 does not fit
// a positive 32-bit number (no response beyond the pre-response then).
int read_table_flash_file(std::span<const uint8_t> message);

// `data` is the data the frame carries: from frame offset 28 up to its
// frame_crc. A len that reaches past it is refused with result_code 10 and no
// file is touched (slice_write_fits, rf_files.hpp).
// Answers the PC with response 64 and returns as the read does; when the
// thread is asked to stop during the sync it answers nobody and returns 0.
int modify_table_flash_file(std::span<const uint8_t> message, std::span<const uint8_t> data);
