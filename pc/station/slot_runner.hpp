// The plan on one phone: runs in the slot's own thread, from opening the
// device to the verdict. The slot owns its line and its PC link; it shares
// the plan (read only), its row of the status board, and the stop, which
// ends an exchange under way at once (Ctrl-C).
//
// A step that fails ends the slot's plan: the steps behind it are recorded as
// not run. The verdict (command 91, when the plan asks for it) is still
// written when the phone answered the failed step, even wrongly; a phone that
// stopped answering, or whose line failed, gets none, and its record says
// that nothing was written. After the write the result is read back (command
// 89) and the record keeps what the phone holds (pc/station/verdict.hpp).
#pragma once

#include <string>

#include "pc/os/line.hpp"
#include "pc/station/plan.hpp"
#include "pc/station/slot_record.hpp"
#include "pc/station/slot_watcher.hpp"
#include "pc/station/status_board.hpp"

namespace station {

struct SlotSetup {
    size_t slot = 1;
    std::string device;
    std::string board;  // from the command line or the plan's list; empty without one
    std::string today;  // YYYY-MM-DD
    const pcos::Stop* stop = nullptr;  // Ctrl-C; none when null
    // The line, already open (a slot on its own cycle opens it to see the
    // phone come); null: the slot opens `device` itself. Stays the caller's.
    pcos::Line* line = nullptr;
    size_t phone = 0;         // the phone's number on the slot in a loop
    bool read_board = false;  // no board number given: read it from the phone (command 85) for the record
    SlotWatcher* watcher = nullptr;  // told of the phone as it goes; null: nobody. Stays the caller's
};

SlotRecord run_slot(const Plan& plan, const SlotSetup& setup, StatusBoard& board);

// "slot 2 /dev/ttyACM1", or "slot 2 phone 14 /dev/ttyACM1" in a loop: how
// the plain lines name a slot.
std::string slot_name(const SlotSetup& setup);

}  // namespace station
