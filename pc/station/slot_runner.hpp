// The plan on one phone: runs in the slot's own thread, from opening the
// device to the verdict. The slot owns its line and its PC link; it shares
// the plan (read only), its row of the status board, and the stop eventfd,
// which ends an exchange under way at once (Ctrl-C).
//
// A step that fails ends the slot's plan: the steps behind it are recorded as
// not run. The verdict (command 91, when the plan asks for it) is still
// written when the phone answered the failed step; a phone that stopped
// answering, or whose line failed, gets none.
#pragma once

#include <string>

#include "pc/station/plan.hpp"
#include "pc/station/slot_record.hpp"
#include "pc/station/status_board.hpp"

namespace station {

struct SlotSetup {
    size_t slot = 1;
    std::string device;
    std::string board;  // from the plan's list; empty without one
    std::string today;  // YYYY-MM-DD
    int stop_fd = -1;
};

// The verdict's test result: 1 passed, 0 failed.
constexpr uint32_t kVerdictPass = 1;
constexpr uint32_t kVerdictFail = 0;

SlotRecord run_slot(const Plan& plan, const SlotSetup& setup, StatusBoard& board);

}  // namespace station
