// The families of measurements, one file each. Every family takes its
// figures side by side with its reference in the same run, alternating the
// two in rounds, and reports the median of the rounds, so that a busy moment
// of the machine neither falls on one side only nor decides a figure.
#pragma once

#include "bench_rig.hpp"
#include "report.hpp"

namespace linebench {

struct Lines {
    OnLine* agent;  // the agent in USB mode, its line opened
    OnLine* socat;  // socat on another phone's line, to the PC-format echo
    OnLine* raw;    // the raw echo on a third phone's line
};

// Scale of the run: 1 for the full run, smaller for a quick look.
struct Scale {
    double factor = 1.0;
    size_t of(size_t n) const {
        double scaled = static_cast<double>(n) * factor;
        return scaled < 1 ? 1 : static_cast<size_t>(scaled);
    }
};

void measure_round_trips(const Lines& lines, const Scale& scale, Report& report);
void measure_local_command(const Lines& lines, const Scale& scale, Report& report);
void measure_bulk(const Lines& lines, const Scale& scale, Report& report);
void measure_rf_reads(const Lines& lines, const Scale& scale, Report& report);
void measure_idle(Rig& rig, const Scale& scale, Report& report);
void measure_endurance(const Lines& lines, const Scale& scale, Report& report);

}  // namespace linebench
