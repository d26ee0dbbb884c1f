// Reads and writes of an RF table larger than one frame: the range is cut into
// slices, one command 61 or 63 each, sent one after the other. The transfer
// stops at the first slice that is not accepted, and says how far it came.
//
// The agent answers a read that runs past the end of the file with result 10
// and the bytes that were there: those bytes are handed on like any others,
// and the transfer ends there.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>

#include "pc/lib/pc_exchange.hpp"

namespace tools {

struct TableRange {
    uint32_t table_type = 0;
    uint32_t offset = 0;
    uint32_t len = 0;
    uint32_t slice = 32 * 1024;  // 1 to kTableSliceMax
};

struct TransferEnd {
    Outcome outcome = Outcome::kAccepted;  // of the last slice
    size_t done = 0;                       // bytes read or written
    std::string last_text;                 // what the last slice's answer said, or why none came
};

// Called after each slice with the exchange (to show frames that came) and
// the bytes done so far.
using SliceSeen = std::function<void(const Exchange&, size_t done)>;
// Takes the data of each read slice as it comes; false stops the transfer.
using DataSink = std::function<bool(std::span<const uint8_t>)>;

// Reads the range slice by slice. A range of length 0 is one exchange.
TransferEnd read_table(PcLink& link, const TableRange& range, std::chrono::milliseconds timeout,
                       const DataSink& sink, const SliceSeen& seen);
// Writes `data` (range.len bytes) slice by slice.
TransferEnd write_table(PcLink& link, const TableRange& range, std::span<const uint8_t> data,
                        std::chrono::milliseconds timeout, const SliceSeen& seen);

// Whether offset + len stays within the 32-bit offsets of the commands.
bool range_fits(uint32_t offset, uint32_t len);

}  // namespace tools
