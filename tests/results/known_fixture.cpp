#include "known_fixture.hpp"

#include <cstdio>

namespace results_test {

using namespace results;

namespace {

std::string at_minute(int minute) {
    char text[40];
    snprintf(text, sizeof(text), "2026-11-26T%02d:%02d:00.000Z", 6 + minute / 60, minute % 60);
    return text;
}

StepRow step(const std::string& slot_id, int64_t index, const char* name, const char* verdict, double ms) {
    StepRow s;
    s.slot_id = slot_id;
    s.index = index;
    s.name = name;
    s.command = name;
    s.request = "{}";
    s.answer = "{}";
    s.measured = "null";
    s.limits = "{}";
    s.verdict = verdict;
    s.duration_ms = ms;
    return s;
}

}  // namespace

bool write_known_fixture(Store& store, std::string* error) {
    RunRow run;
    run.id = "12-linepc3-20261126T060000000Z-0000000000000001";
    run.plan = "pc/plans/fixture.toml";
    run.plan_hash = "00";
    run.station = 12;
    run.host = "linepc3";
    run.started = at_minute(0);
    if (!store.add_run(run, error)) return false;
    for (int slot = 1; slot <= 4; ++slot) {
        const int tests = slot == 4 ? 11 : 10;
        for (int k = 0; k < tests; ++k) {
            SlotRow s;
            s.id = run.id + "/" + std::to_string(slot) + "." + std::to_string(k + 1);
            s.run_id = run.id;
            s.fixture_slot = slot;
            s.device = "/dev/ttyACM" + std::to_string(slot - 1);
            s.board = "B-" + std::to_string(slot) + "-" + std::to_string(k);
            // Slot 3's last three phones are slot 1's first three, again.
            if (slot == 3 && k >= 7) s.board = "B-1-" + std::to_string(k - 7);
            s.started = at_minute(k * 5 + slot);
            if (!store.add_slot(s, error)) return false;
            const bool times_out = slot == 1 && k < 4;
            const bool too_small = slot == 1 && k == 4;
            const bool misread = slot == 2 && k == 0;
            StepRow enter = step(s.id, 1, "enter-amt", "pass", slot * 10 + k);
            StepRow board = step(s.id, 2, "board number read back", misread ? "fail" : "pass", 2);
            if (misread) board.reason = "read back SN-0000, expected " + s.board;
            StepRow card = step(s.id, 3, "card", misread ? "not-run" : times_out || too_small ? "fail" : "pass",
                                times_out ? 3001 : 15);
            card.limits = R"({"min":1000,"max":64000})";
            if (times_out) card.reason = "nothing came within 3000 ms";
            if (too_small) card.reason = "card: 512 below 1000";
            if (!times_out && !misread) card.measured = too_small ? "512" : std::to_string(30000 + 100 * k);
            const bool failed = times_out || too_small || misread;
            StepRow verdict = step(s.id, 4, "verdict", failed ? "not-run" : "pass", 2100);
            const bool unfinished = slot == 4 && k == 10;
            for (const StepRow* r : {&enter, &board, &card, &verdict}) {
                if (unfinished && r->index > 1) break;
                if (!store.add_step(*r, error)) return false;
            }
            if (unfinished) continue;
            const Verdict v = failed ? Verdict::kFail : slot == 4 && k == 9 ? Verdict::kUnknown : Verdict::kPass;
            const std::string reason = failed ? (misread ? board.reason : card.reason)
                                              : v == Verdict::kUnknown ? "no answer to the verdict" : "";
            if (!store.finish_slot(s.id, at_minute(k * 5 + slot + 1), v, reason, error)) return false;
        }
    }
    return true;
}

}  // namespace results_test
