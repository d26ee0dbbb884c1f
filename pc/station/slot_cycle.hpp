// A slot on its own cycle (ovta-station --loop), on the slot's own thread:
// waits for a phone on its line, runs the plan, hands the record to the
// keeper, waits for that phone to go, and starts again, never waiting for
// the other slots. It ends on the stop (Ctrl-C: a plan under way is stopped
// and its record still kept) or when its board numbers run out for a plan
// that needs them. The slot owns its line; it shares the plan (read only),
// its row of the status board, its list of board numbers (no other thread
// takes from it) and the keeper.
#pragma once

#include <optional>
#include <string>

#include "pc/station/board_list.hpp"
#include "pc/station/plan.hpp"
#include "pc/station/record_keeper.hpp"
#include "pc/station/slot_runner.hpp"
#include "pc/station/status_board.hpp"

namespace station {

struct CycleSetup {
    SlotSetup slot;            // device, slot, stop; line, phone and board are set per phone
    // A --boards file's numbers, one per phone in order (a phone without one
    // has its own); null: slot.board for every phone.
    BoardList* boards = nullptr;
    bool board_needed = false;  // the plan holds {board}: the slot ends when the file's numbers run out
};

void run_cycle(const Plan& plan, const CycleSetup& setup, StatusBoard& board, RecordKeeper& keeper);

}  // namespace station
