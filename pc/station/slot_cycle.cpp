#include "pc/station/slot_cycle.hpp"

#include "pc/station/phone_line.hpp"
#include "pc/station/records.hpp"
#include "pc/station/utc_text.hpp"

namespace station {

void run_cycle(const Plan& plan, const CycleSetup& setup, StatusBoard& board, RecordKeeper& keeper) {
    const size_t slot = setup.slot.slot;
    PhoneLine line(setup.slot.device, setup.slot.stop);
    auto idle = [&](const std::string& note, bool closed) {
        board.update(slot, [&](SlotStatus& s) {
            s.waiting = !closed;
            s.closed = closed;
            s.note = note;
        });
    };
    for (size_t phone = 1;; ++phone) {
        if (setup.board_needed && setup.boards != nullptr && setup.boards->count(slot) == 0) {
            idle("no board numbers left", true);
            return;
        }
        idle("waiting for a phone", false);
        if (!line.wait_for_phone()) break;
        SlotSetup one = setup.slot;
        one.line = &line.line();
        one.phone = phone;
        one.today = utc_date();  // a shift runs past midnight
        if (setup.boards != nullptr) one.board = setup.boards->take(slot).value_or("");
        one.read_board = one.board.empty() && !plan.sets_board;
        board.update(slot, [&](SlotStatus& s) {
            s.waiting = false;
            s.board = one.board;
            s.step = 0;
            s.step_name.clear();
            s.rf_done = s.rf_total = 0;
            s.passed = s.failed = 0;
            s.finished = false;
            s.started = std::chrono::steady_clock::now();
        });
        SlotRecord record = run_slot(plan, one, board);
        keeper.keep(record);
        std::string verdict = slot_verdict_name(record);
        if (!record.failed_step.empty()) verdict += " at \"" + record.failed_step + "\"";
        if (!record.reason.empty()) verdict += ": " + record.reason;
        board.finished_step(slot, slot_name(one) + (record.board.empty() ? "" : " " + record.board) + ": " + verdict);
        board.update(slot, [&](SlotStatus& s) {
            ++s.phones;
            if (record.passed) ++s.phones_passed;
            s.last_board = record.board;
            s.last_verdict = slot_verdict_name(record);
        });
        if (record.stopped) break;
        idle("waiting for the phone to go", false);
        if (!line.wait_until_gone()) break;
    }
    idle("stopped", true);
}

}  // namespace station
