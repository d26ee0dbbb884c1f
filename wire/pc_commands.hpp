// The commands that the agent answers itself, as both ends number them, and
// the result words and field sizes that both ends must agree on. Bodies are
// the bytes behind cmd (offset 16 of the frame); integers little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

namespace wire {

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

// result_code, the first word of every answer body.
constexpr uint32_t kResultDone = 0;
constexpr uint32_t kResultPathUnchanged = 1;  // enter-AMT: the path could not be rewritten
constexpr uint32_t kResultNoStation = 3;      // test result read: no line for the station
constexpr uint32_t kResultFailed = 10;

// Enter-AMT mode in which the agent rewrites its own AMT path instead of
// asking wfmgr to load the name.
constexpr uint32_t kAmtModeRewritePath = 4;
// Longest wf_name: the load request that the agent makes of command 17 has a
// field of 64 bytes for it, its terminating zero included.
constexpr size_t kWfNameMax = 63;
// Largest slice of one table read or write. A write frame is 32 bytes around
// its data and must fit the agent's 40960-byte message buffer; a read answer
// is 24 bytes around its data, so the same size serves both.
constexpr uint32_t kTableSliceMax = 40960 - 32;

}  // namespace wire
