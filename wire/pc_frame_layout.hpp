// PcFrame: the unit of the serial link between the PC test tool and the
// agent, as both ends lay it out.
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
constexpr size_t kPcCrcLen = 4;
constexpr uint32_t kPcFrameLenMin = 8;    // a frame with no cmd and no body
constexpr uint32_t kPcFrameLenMax = 40952;  // frame_len + 8 fills the agent's message buffer exactly
constexpr uint32_t kPcCmdMax = 65535;
constexpr uint8_t kFrameTag = 2;

// The constant 16-byte answer to every frame, sent before anything else: a
// frame with frame_len 8, frame_kind 2, no cmd and no body.
extern const uint8_t amt_pre_response[16];

// The system's own CRC: reflected CRC-32 table, left-shifting accumulator,
// initial value 0, four zero bytes appended, no final inversion. Only the low
// 32 bits ever reach a frame. Pure: any thread may call it at any time.
uint64_t amt_crc32(const uint8_t* data, int32_t n);
