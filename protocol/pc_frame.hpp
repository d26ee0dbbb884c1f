// PcFrame builders of the agent: the response header, the CRC behind it and
// the wrapping of a payload from wfmgr into a frame. The layout and the CRC
// are shared with the PC side (wire/pc_frame_layout.hpp).
#pragma once

#include <cstddef>
#include <cstdint>

#include "wire/pc_frame_layout.hpp"

constexpr size_t kAmtStoreSize = 4096;
constexpr size_t kAmtStorePayloadMaxForPc = kAmtStoreSize - 16;  // 12 in front, CRC behind

// A payload on its way between the two links.
struct AmtPayloadStore {
    uint32_t len;
    uint8_t data[kAmtStoreSize];
};

// Zeroes the first 16 bytes and writes head, frame_len 16, tag 2, kind 0, cmd.
// 0, or -103 for a null buffer or a size below 16.
int32_t add_amt_cmd_general_msg(uint8_t* buf, int32_t size, uint32_t cmd);
// Stores the low 32 bits of amt_crc32(buf, n) at offset n. 0, or -101.
int32_t add_amt_crc(uint8_t* buf, int32_t n);
// The little-endian 16-bit integer at p; 0 for null.
uint16_t get_amt_msg_len(const uint8_t* p);
// Wraps the store's payload into a whole frame, in place: the payload's first
// word becomes cmd. Refuses (-101, with a log line) an empty payload and one
// that would not fit the store with its 16 bytes of framing.
int32_t add_amt_head(AmtPayloadStore* store);
