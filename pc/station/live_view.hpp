// What the operator sees while the plan runs. On a terminal: a table with
// one row per slot (device, board, step, RF progress, steps passed and
// failed, time, state), redrawn in place. Otherwise (a log file, a pipe): one
// plain line per finished step. Raw frames and whole answers go to the
// records, never here.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "pc/station/status_board.hpp"

namespace station {

// The table's lines, header first, as of `now`. A loop's table adds, per
// slot, the phones done since the start, their pass rate and the last
// phone's board and verdict.
std::vector<std::string> table_lines(const std::vector<SlotStatus>& rows, std::chrono::steady_clock::time_point now,
                                     bool loop = false);

class LiveView {
public:
    LiveView(FILE* out, bool terminal, bool loop = false) : out_(out), terminal_(terminal), loop_(loop) {}
    bool terminal() const { return terminal_; }
    // Shows what changed on `board` since the last call.
    void show(StatusBoard& board);
    // Something else was written to the terminal: the table starts afresh below it.
    void interrupted() { drawn_ = 0; }

private:
    FILE* out_;
    bool terminal_;
    bool loop_;
    size_t drawn_ = 0;  // lines of the table on the screen
};

}  // namespace station
