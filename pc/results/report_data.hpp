// What the report reads from a results database, loaded once: the phones
// (slots) that pass the filter and their steps, in compact form (names and
// reasons are numbered once; a step is 48 bytes), so that a day of a whole
// line, a hundred thousand phones and a million steps, fits and is summed in
// a second. Loaded from the local SQLite file or from the line's
// PostgreSQL server by the same query.
#pragma once

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pc/results/rows.hpp"

namespace results {

struct ReportFilter {
    std::string since;  // UTC, a prefix of ISO 8601: a phone that started at or after it
    std::string until;  // a phone that started before it
    std::string plan;   // the plan's file, or its name alone
    std::optional<int64_t> station;
    std::optional<int64_t> fixture_slot;
};

struct SlotFact {
    uint32_t fixture = 0;     // index into ReportData::fixtures
    int64_t fixture_slot = 1;
    std::string board;        // empty: the phone is known by its slot only
    std::string started;
    std::optional<Verdict> verdict;  // none: not finished (under test, or the station died)
    std::string reason;
    uint32_t failed_step = 0;  // 1 + index into step_names of its first failed step, 0 for none
};

enum class StepOutcome : uint8_t { kPass, kFail, kOther };

struct StepFact {
    uint32_t slot = 0;        // index into ReportData::slots
    uint32_t name = 0;        // index into ReportData::step_names
    uint32_t reason = 0;      // index into ReportData::reasons (0 is "")
    StepOutcome outcome = StepOutcome::kOther;
    double duration_ms = 0;
    double number = NAN;      // NaN: none
    double low = NAN;
    double high = NAN;
};

struct ReportData {
    std::vector<std::string> fixtures;    // "12@linepc3": a station's number and host
    std::vector<std::string> step_names;
    std::vector<std::string> reasons{""};
    std::vector<SlotFact> slots;
    std::vector<StepFact> steps;
};

// `source`: a postgresql:// URL, or a SQLite file's path.
bool load_report_data(const std::string& source, const ReportFilter& filter, ReportData* out, std::string* error);

}  // namespace results
