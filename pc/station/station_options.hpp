// ovta-station's command line: the options, the devices a glob names, and
// the board numbers of each slot from --board, --boards or the plan. Read
// by the main thread before any slot starts.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pc/station/board_list.hpp"
#include "pc/station/plan.hpp"

namespace station {

struct Options {
    std::string plan;
    std::vector<std::string> devices;
    std::vector<std::string> boards;  // --board, in device order
    std::string board_file;           // --boards
    std::string records = "records";
    std::string junit;
    std::string database;             // --database FILE or postgresql://URL; empty: RECORDS/results.db
    bool plain = false;
    bool loop = false;
};

// The text of --help.
extern const char kUsage[];

// Nothing when the options are good, else the reason.
std::optional<std::string> read_options(int argc, char** argv, Options* opt);

// The board numbers of each slot: from the command line, else the plan's
// list. Nothing when good, else the reason (a plan that uses {board} with
// no number for a slot, a --boards file that names no slot of the run).
std::optional<std::string> gather_boards(const Options& opt, const Plan& plan, BoardList* list);

}  // namespace station
