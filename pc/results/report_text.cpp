// The report as a table on the terminal: one section per question, columns
// as wide as their widest cell.
#include <cmath>
#include <cstdio>

#include "pc/results/report.hpp"

namespace results {

namespace {

std::string fixed(double x, int decimals) {
    char text[64];
    snprintf(text, sizeof(text), "%.*f", decimals, x);
    return text;
}
// A measured value: two decimals, none from a hundred thousand up (a card's KiB).
std::string value(double x) { return fixed(x, std::fabs(x) >= 1e5 ? 0 : 2); }
std::string percent(double x) { return fixed(100 * x, 1) + " %"; }
std::string p_text(double p) {
    char text[32];
    snprintf(text, sizeof(text), p < 0.001 ? "%.1e" : "%.4f", p);
    return text;
}

std::string table(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
    }
    std::string out;
    for (const auto& row : rows) {
        std::string line;
        for (size_t c = 0; c < row.size(); ++c) {
            line += row[c];
            if (c + 1 < row.size()) line += std::string(widths[c] - row[c].size() + 2, ' ');
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out += "  " + line + "\n";
    }
    return out;
}

std::string filter_text(const Report& r) {
    std::string text;
    const ReportFilter& f = r.filter;
    if (!f.since.empty()) text += ", since " + f.since;
    if (!f.until.empty()) text += ", until " + f.until;
    if (!f.plan.empty()) text += ", plan " + f.plan;
    if (f.station) text += ", station " + std::to_string(*f.station);
    if (f.fixture_slot) text += ", slot " + std::to_string(*f.fixture_slot);
    return text;
}

}  // namespace

std::string report_text(const Report& r) {
    std::string out = "Results of " + r.source + filter_text(r) + "\n\n";
    const YieldFigures& y = r.yield;
    out += "Yield\n";
    out += table({{"boards", "first pass", "final", "tests", "unknown", "unfinished"},
                  {std::to_string(y.boards), percent(y.first_pass_yield) + " (" + std::to_string(y.first_pass) + ")",
                   percent(y.final_yield) + " (" + std::to_string(y.final_pass) + ")", std::to_string(y.tests),
                   std::to_string(y.unknown), std::to_string(y.unfinished)}});

    out += "\nFailing steps, most frequent first\n";
    std::vector<std::vector<std::string>> rows{{"step", "fails", "share", "cumulative", "reasons"}};
    for (const ParetoRow& p : r.pareto) {
        std::string reasons;
        for (size_t i = 0; i < p.reasons.size() && i < 3; ++i) {
            if (i != 0) reasons += "; ";
            reasons += (p.reasons[i].first.empty() ? "(none given)" : p.reasons[i].first) + " (" +
                       std::to_string(p.reasons[i].second) + ")";
        }
        if (p.reasons.size() > 3) reasons += "; " + std::to_string(p.reasons.size() - 3) + " more";
        rows.push_back({p.step, std::to_string(p.failures), percent(p.share), percent(p.cumulative), reasons});
    }
    out += r.pareto.empty() ? "  none\n" : table(rows);

    out += "\nYield per slot (one-sided Fisher exact test of each slot against the rest of its fixture,\n"
           "Bonferroni-corrected for the fixture's slots; flagged below " + fixed(r.alpha, 2) + ")\n";
    rows = {{"fixture", "slot", "tests", "passed", "yield", "others", "p", "p adjusted", ""}};
    for (const SlotYield& s : r.slots) {
        rows.push_back({s.fixture, std::to_string(s.slot), std::to_string(s.tests), std::to_string(s.passed),
                        percent(s.yield), percent(s.others_yield), p_text(s.p_value), p_text(s.p_adjusted),
                        s.flagged ? "WORSE THAN ITS FIXTURE" : ""});
    }
    out += table(rows);

    out += "\nStep durations (ms; p95 by nearest rank)\n";
    rows = {{"step", "count", "median", "p95", "max"}};
    for (const DurationRow& d : r.durations) {
        rows.push_back({d.step, std::to_string(d.count), fixed(d.median_ms, 1), fixed(d.p95_ms, 1), fixed(d.max_ms, 1)});
    }
    out += table(rows);

    out += "\nMeasured values against their limits\n";
    rows = {{"step", "count", "min", "mean", "max", "sd", "low", "high", "below", "above", "Cpk"}};
    for (const SpreadRow& s : r.spread) {
        rows.push_back({s.step, std::to_string(s.count), value(s.min), value(s.mean), value(s.max), value(s.sd),
                        s.low ? value(*s.low) : "-", s.high ? value(*s.high) : "-",
                        std::to_string(s.below), std::to_string(s.above), s.cpk ? fixed(*s.cpk, 2) : "-"});
    }
    out += r.spread.empty() ? "  none\n" : table(rows);

    out += "\nRetested boards, failed then passed: " + std::to_string(r.retests.size()) + "\n";
    rows = {{"board", "tests", "first failure", "passed at"}};
    for (size_t i = 0; i < r.retests.size() && i < 20; ++i) {
        const RetestRow& t = r.retests[i];
        const std::string failure = t.first_failed_step.empty() ? t.first_reason : t.first_failed_step + ": " + t.first_reason;
        rows.push_back({t.board, std::to_string(t.tests), failure, t.passed_at});
    }
    if (!r.retests.empty()) out += table(rows);
    if (r.retests.size() > 20) out += "  ... " + std::to_string(r.retests.size() - 20) + " more (--json lists all)\n";
    return out;
}

}  // namespace results
