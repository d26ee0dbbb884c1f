// The rows of the results database: a run (one start of a station), a slot
// (one phone in one fixture slot) and a step (one command of the plan on that
// phone). They are the station's records flattened for SQL, and they are the
// same on every station, so that a line's server can hold them all: every id
// is unique across stations (row_ids.hpp).
//
// Times are UTC text, ISO 8601 ("2026-11-26T07:14:03.125Z"), which sorts as
// it reads in SQLite and PostgreSQL alike.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace results {

// A phone's outcome. Unknown: the verdict write went unanswered, so neither
// the record nor the phone can say; it counts as not passed.
enum class Verdict { kPass, kFail, kUnknown };

// "pass", "fail", "unknown".
const char* verdict_text(Verdict verdict);
std::optional<Verdict> verdict_of(const std::string& text);

struct RunRow {
    std::string id;           // make_run_id()
    std::string plan;         // the plan's file
    std::string plan_hash;    // SHA-256 of its text, hex, or empty
    std::optional<int64_t> station;  // the plan's station number
    std::string host;         // the station PC's host name
    std::string started;      // UTC
};

struct SlotRow {
    std::string id;           // make_slot_id()
    std::string run_id;
    int64_t fixture_slot = 1; // from 1
    std::string device;
    std::string board;
    std::string started;      // UTC
    std::string ended;        // UTC; empty while the phone is under test
    std::optional<Verdict> verdict;  // none while under test
    std::string reason;       // the first failed step's reason
};

struct StepRow {
    std::string slot_id;
    int64_t index = 0;        // from 1, in plan order
    std::string name;
    std::string command;
    std::string request;      // JSON text: the arguments and the frame sent
    std::string answer;       // JSON text: the decoded answer and its frame
    std::string measured;     // JSON text: the value the answer carried, "null" without one
    std::string limits;       // JSON text: the expectations, e.g. {"min":1,"max":9}
    std::string verdict;      // "pass", "fail", "not-run", "stopped"
    std::string reason;
    double duration_ms = 0;
    // Derived by the store from `measured` (a number, or an object's
    // "number") and `limits` ("min", "max"), for the report's spread; set
    // when rows are read back, ignored when they are written.
    std::optional<double> number, low, high;
};

}  // namespace results
