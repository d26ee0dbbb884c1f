// Rows as a station writes them, for the tests.
#pragma once

#include <string>

#include "pc/results/rows.hpp"

namespace results_test {

inline results::RunRow sample_run(const std::string& id, int64_t station = 12) {
    results::RunRow r;
    r.id = id;
    r.plan = "pc/plans/fixture.toml";
    r.plan_hash = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";
    r.station = station;
    r.host = "linepc3";
    r.started = "2026-11-26T07:00:00.000Z";
    return r;
}

inline results::SlotRow sample_slot(const std::string& id, const std::string& run_id, int64_t fixture_slot = 1) {
    results::SlotRow s;
    s.id = id;
    s.run_id = run_id;
    s.fixture_slot = fixture_slot;
    s.device = "/dev/ttyACM" + std::to_string(fixture_slot - 1);
    s.board = "SN-" + id;
    s.started = "2026-11-26T07:00:01.000Z";
    return s;
}

inline results::StepRow sample_step(const std::string& slot_id, int64_t index, const std::string& verdict = "pass") {
    results::StepRow s;
    s.slot_id = slot_id;
    s.index = index;
    s.name = "card size";
    s.command = "card";
    s.request = R"({"cmd":93})";
    s.answer = R"({"outcome":"accepted"})";
    s.measured = "30436";
    s.limits = R"({"min":1000,"max":64000})";
    s.verdict = verdict;
    s.duration_ms = 12.5;
    return s;
}

}  // namespace results_test
