// The yield report: the figures a line engineer asks of a day, computed
// from the loaded rows (report_data.hpp), and their three renderings
// (report_text.cpp, report_json.cpp, report_html.cpp).
//
// A board is a phone, known by its board number (a phone without one counts
// once per test). Only finished tests count; unfinished ones are counted
// apart. `unknown` counts as not passed.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "pc/results/report_data.hpp"

namespace results {

struct YieldFigures {
    size_t tests = 0;        // finished tests of phones
    size_t unfinished = 0;   // started and never finished
    size_t unknown = 0;      // finished tests whose verdict is unknown
    size_t boards = 0;
    size_t first_pass = 0;   // boards that passed their first test
    size_t final_pass = 0;   // boards whose last test passed
    double first_pass_yield = 0;
    double final_yield = 0;
};

struct ParetoRow {
    std::string step;
    size_t failures = 0;
    double share = 0;        // of all failed steps
    double cumulative = 0;
    std::vector<std::pair<std::string, size_t>> reasons;  // most frequent first
};

struct SlotYield {
    std::string fixture;     // "12@linepc3"
    int64_t slot = 1;
    size_t tests = 0;
    size_t passed = 0;
    double yield = 0;
    double others_yield = 0; // the rest of its fixture
    double p_value = 1;      // one-sided Fisher exact, this slot worse than the rest
    double p_adjusted = 1;   // Bonferroni: times the fixture's number of slots
    bool flagged = false;    // p_adjusted < alpha
};

struct DurationRow {
    std::string step;
    size_t count = 0;
    double median_ms = 0;
    double p95_ms = 0;
    double max_ms = 0;
};

struct SpreadRow {
    std::string step;
    size_t count = 0;
    double min = 0, mean = 0, max = 0, sd = 0;
    std::optional<double> low, high;  // the limits (the last phone's)
    size_t below = 0, above = 0;      // outside each phone's own limits
    std::optional<double> cpk;        // with both limits and some spread
    double histogram_from = 0, histogram_to = 0;
    std::vector<size_t> histogram;    // kHistogramBins equal bins over [from, to]
};

struct RetestRow {
    std::string board;
    size_t tests = 0;
    std::string first_failed_step;   // of its first test that did not pass
    std::string first_reason;
    std::string passed_at;           // the start of the test that passed
};

struct Report {
    ReportFilter filter;
    std::string source;
    double alpha = 0.05;
    YieldFigures yield;
    std::vector<ParetoRow> pareto;
    std::vector<SlotYield> slots;
    std::vector<DurationRow> durations;
    std::vector<SpreadRow> spread;
    std::vector<RetestRow> retests;
};

constexpr size_t kHistogramBins = 24;

Report compute_report(const ReportData& data, double alpha = 0.05);

std::string report_text(const Report& report);
nlohmann::json report_json(const Report& report);
// One self-contained page: styles inline, charts as inline SVG, no script.
std::string report_html(const Report& report);

}  // namespace results
