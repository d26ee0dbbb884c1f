#include "pc/results/report.hpp"

#include <algorithm>
#include <cmath>
#include <map>

#include "pc/results/fisher_test.hpp"

namespace results {

namespace {

double ratio(size_t part, size_t whole) { return whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole); }

// The nearest-rank quantile of sorted values: the smallest value with at
// least `q` of them at or below it.
double quantile(const std::vector<double>& sorted, double q) {
    if (sorted.empty()) return 0;
    const size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(sorted.size())));
    return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

double median(const std::vector<double>& sorted) {
    if (sorted.empty()) return 0;
    const size_t n = sorted.size();
    return n % 2 == 1 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2;
}

// Tests of each board in start order (the data comes sorted by start).
std::vector<std::vector<uint32_t>> tests_by_board(const ReportData& data) {
    std::map<std::string_view, size_t> board_index;
    std::vector<std::vector<uint32_t>> boards;
    for (uint32_t i = 0; i < data.slots.size(); ++i) {
        const SlotFact& s = data.slots[i];
        if (!s.verdict) continue;
        if (s.board.empty()) {
            boards.push_back({i});
            continue;
        }
        const auto [it, fresh] = board_index.emplace(s.board, boards.size());
        if (fresh) boards.emplace_back();
        boards[it->second].push_back(i);
    }
    return boards;
}

void count_yield(const ReportData& data, const std::vector<std::vector<uint32_t>>& boards, Report* r) {
    YieldFigures& y = r->yield;
    for (const SlotFact& s : data.slots) {
        if (!s.verdict) {
            ++y.unfinished;
            continue;
        }
        ++y.tests;
        if (*s.verdict == Verdict::kUnknown) ++y.unknown;
    }
    y.boards = boards.size();
    for (const std::vector<uint32_t>& tests : boards) {
        if (data.slots[tests.front()].verdict == Verdict::kPass) ++y.first_pass;
        if (data.slots[tests.back()].verdict == Verdict::kPass) {
            ++y.final_pass;
            if (tests.size() > 1 && data.slots[tests.front()].verdict != Verdict::kPass) {
                RetestRow row;
                row.board = data.slots[tests.front()].board;
                row.tests = tests.size();
                const SlotFact& first = data.slots[tests.front()];
                if (first.failed_step != 0) row.first_failed_step = data.step_names[first.failed_step - 1];
                row.first_reason = first.reason;
                row.passed_at = data.slots[tests.back()].started;
                r->retests.push_back(std::move(row));
            }
        }
    }
    y.first_pass_yield = ratio(y.first_pass, y.boards);
    y.final_yield = ratio(y.final_pass, y.boards);
}

void count_pareto(const ReportData& data, Report* r) {
    std::vector<size_t> failures(data.step_names.size());
    std::vector<std::map<uint32_t, size_t>> reasons(data.step_names.size());
    size_t total = 0;
    for (const StepFact& s : data.steps) {
        if (s.outcome != StepOutcome::kFail) continue;
        ++failures[s.name];
        ++reasons[s.name][s.reason];
        ++total;
    }
    for (uint32_t n = 0; n < failures.size(); ++n) {
        if (failures[n] == 0) continue;
        ParetoRow row;
        row.step = data.step_names[n];
        row.failures = failures[n];
        for (const auto& [reason, count] : reasons[n]) row.reasons.emplace_back(data.reasons[reason], count);
        std::stable_sort(row.reasons.begin(), row.reasons.end(),
                         [](const auto& x, const auto& y) { return x.second > y.second; });
        r->pareto.push_back(std::move(row));
    }
    std::stable_sort(r->pareto.begin(), r->pareto.end(),
                     [](const ParetoRow& x, const ParetoRow& y) { return x.failures > y.failures; });
    double cumulative = 0;
    for (ParetoRow& row : r->pareto) {
        row.share = ratio(row.failures, total);
        cumulative += row.share;
        row.cumulative = cumulative;
    }
}

void count_slots(const ReportData& data, Report* r) {
    // (fixture, slot) -> tests, passed; every finished test counts, retests too.
    std::map<std::pair<uint32_t, int64_t>, std::pair<size_t, size_t>> counts;
    for (const SlotFact& s : data.slots) {
        if (!s.verdict) continue;
        auto& [tests, passed] = counts[{s.fixture, s.fixture_slot}];
        ++tests;
        if (*s.verdict == Verdict::kPass) ++passed;
    }
    std::map<uint32_t, std::pair<size_t, size_t>> fixtures;
    std::map<uint32_t, size_t> slots_in_fixture;
    for (const auto& [key, tp] : counts) {
        fixtures[key.first].first += tp.first;
        fixtures[key.first].second += tp.second;
        ++slots_in_fixture[key.first];
    }
    for (const auto& [key, tp] : counts) {
        SlotYield row;
        row.fixture = data.fixtures[key.first];
        row.slot = key.second;
        row.tests = tp.first;
        row.passed = tp.second;
        row.yield = ratio(row.passed, row.tests);
        const size_t other_tests = fixtures[key.first].first - row.tests;
        const size_t other_passed = fixtures[key.first].second - row.passed;
        row.others_yield = ratio(other_passed, other_tests);
        const size_t m = slots_in_fixture[key.first];
        if (m > 1) {
            row.p_value = fisher_one_sided_worse(row.tests - row.passed, row.passed, other_tests - other_passed,
                                                 other_passed);
            row.p_adjusted = std::min(1.0, row.p_value * static_cast<double>(m));
            row.flagged = row.p_adjusted < r->alpha;
        }
        r->slots.push_back(std::move(row));
    }
}

void count_steps(const ReportData& data, Report* r) {
    const size_t names = data.step_names.size();
    std::vector<std::vector<double>> durations(names);
    std::vector<std::vector<double>> values(names);
    std::vector<SpreadRow> spread(names);
    for (const StepFact& s : data.steps) {
        if (s.outcome == StepOutcome::kOther) continue;  // not run or stopped: no time of its own
        durations[s.name].push_back(s.duration_ms);
        if (std::isnan(s.number)) continue;
        values[s.name].push_back(s.number);
        SpreadRow& row = spread[s.name];
        if (!std::isnan(s.low)) {
            row.low = s.low;
            if (s.number < s.low) ++row.below;
        }
        if (!std::isnan(s.high)) {
            row.high = s.high;
            if (s.number > s.high) ++row.above;
        }
    }
    for (size_t n = 0; n < names; ++n) {
        std::vector<double>& d = durations[n];
        if (!d.empty()) {
            std::sort(d.begin(), d.end());
            r->durations.push_back({data.step_names[n], d.size(), median(d), quantile(d, 0.95), d.back()});
        }
        std::vector<double>& v = values[n];
        if (v.empty()) continue;
        SpreadRow& row = spread[n];
        row.step = data.step_names[n];
        row.count = v.size();
        double sum = 0;
        row.min = v.front();
        row.max = v.front();
        for (double x : v) {
            sum += x;
            row.min = std::min(row.min, x);
            row.max = std::max(row.max, x);
        }
        row.mean = sum / static_cast<double>(v.size());
        double squares = 0;
        for (double x : v) squares += (x - row.mean) * (x - row.mean);
        row.sd = v.size() > 1 ? std::sqrt(squares / static_cast<double>(v.size() - 1)) : 0;
        if (row.low && row.high && row.sd > 0) {
            row.cpk = std::min(*row.high - row.mean, row.mean - *row.low) / (3 * row.sd);
        }
        // The bins span the values and the limits, so both show.
        row.histogram_from = std::min(row.min, row.low.value_or(row.min));
        row.histogram_to = std::max(row.max, row.high.value_or(row.max));
        if (row.histogram_to <= row.histogram_from) row.histogram_to = row.histogram_from + 1;
        row.histogram.assign(kHistogramBins, 0);
        const double width = (row.histogram_to - row.histogram_from) / kHistogramBins;
        for (double x : v) {
            const size_t bin = static_cast<size_t>(std::clamp((x - row.histogram_from) / width, 0.0, kHistogramBins - 1.0));
            ++row.histogram[bin];
        }
        r->spread.push_back(std::move(row));
    }
}

}  // namespace

Report compute_report(const ReportData& data, double alpha) {
    Report r;
    r.alpha = alpha;
    count_yield(data, tests_by_board(data), &r);
    count_pareto(data, &r);
    count_slots(data, &r);
    count_steps(data, &r);
    return r;
}

}  // namespace results
