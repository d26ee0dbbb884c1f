// PcFrame: the unit of the link to the PC test tool.
//
//   0  frame_head      AA BB CC DD
//   4  frame_len       bytes behind this field, frame_crc included
//   8  frame_tag       2
//   9  frame_kind      0 (2 in the pre-response)
//  10  frame_reserved  0
//  12  cmd
//  16  body            frame_len - 12 bytes
//  frame_len + 4       frame_crc: amt_crc32 of every byte before it
//
// All integers little-endian. On the wire a frame is frame_len + 8 bytes.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint8_t kFrameHead[4] = {0xAA, 0xBB, 0xCC, 0xDD};
constexpr size_t kPcOffFrameLen = 4;
constexpr size_t kPcOffTag = 8;
constexpr size_t kPcOffKind = 9;
constexpr size_t kPcOffReserved = 10;
constexpr size_t kPcOffCmd = 12;
constexpr size_t kPcOffBody = 16;
constexpr size_t kPcHeaderLen = 16;       // head, frame_len, tag, kind, reserved, cmd
constexpr uint32_t kPcFrameLenMin = 8;    // a frame with no cmd and no body
constexpr uint32_t kPcFrameLenMax = 40952;  // frame_len + 8 fills temp_msg exactly
constexpr uint32_t kPcCmdMax = 65535;
constexpr uint8_t kFrameTag = 2;
constexpr size_t kAmtStoreSize = 4096;
constexpr size_t kAmtStorePayloadMaxForPc = kAmtStoreSize - 16;  // 12 in front, CRC behind

// The constant 16-byte answer to every frame, sent before anything else.
extern const uint8_t amt_pre_response[16];

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
// The system's own CRC: reflected CRC-32 table, left-shifting accumulator,
// initial value 0, four zero bytes appended, no final inversion. Only the low
// 32 bits ever reach a frame.
uint64_t amt_crc32(const uint8_t* data, int32_t n);
// The little-endian 16-bit integer at p; 0 for null.
uint16_t get_amt_msg_len(const uint8_t* p);
// Wraps the store's payload into a whole frame, in place: the payload's first
// word becomes cmd. Refuses (-101, with a log line) an empty payload and one
// that would not fit the store with its 16 bytes of framing.
int32_t add_amt_head(AmtPayloadStore* store);
