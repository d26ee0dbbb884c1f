// Timed exchanges on a PC line, shared by the families.
#pragma once

#include <span>
#include <vector>

#include "pc_side.hpp"

namespace linebench {

// Sends `frame` `count` times, one at a time, each after the answer of the
// one before; the microseconds of each exchange go to `us` unless it is null.
// False when an answer does not come within 5 s.
bool time_exchanges(PcSide& pc, std::span<const uint8_t> frame, size_t count, std::vector<double>* us);

// Megabytes (10^6 bytes) a second.
inline double mb_per_s(double bytes, double seconds) { return seconds > 0 ? bytes / seconds / 1e6 : 0; }

}  // namespace linebench
