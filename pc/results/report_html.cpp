// The report as one self-contained HTML page: the same sections as the
// terminal's, each with its chart (svg_chart.hpp) above its table. No
// script, no fonts or styles fetched: it opens from a mail or a USB stick.
#include <cstdio>

#include "pc/results/report.hpp"
#include "pc/results/svg_chart.hpp"

namespace results {

namespace {

std::string fixed(double x, int decimals) {
    char text[64];
    snprintf(text, sizeof(text), "%.*f", decimals, x);
    return text;
}
std::string percent(double x) { return fixed(100 * x, 1) + " %"; }

std::string cell(const std::string& text) { return "<td>" + markup_escape(text) + "</td>"; }

std::string table(const std::vector<std::string>& head, const std::vector<std::vector<std::string>>& rows,
                  const std::vector<bool>& flagged = {}) {
    std::string s = "<table><tr>";
    for (const std::string& h : head) s += "<th>" + markup_escape(h) + "</th>";
    s += "</tr>\n";
    for (size_t r = 0; r < rows.size(); ++r) {
        s += r < flagged.size() && flagged[r] ? "<tr class=\"flagged\">" : "<tr>";
        for (const std::string& c : rows[r]) s += cell(c);
        s += "</tr>\n";
    }
    return s + "</table>\n";
}

const char kStyle[] =
    "body{font-family:sans-serif;margin:24px;color:#222;max-width:1100px}"
    "h1{font-size:22px}h2{font-size:17px;margin-top:32px;border-bottom:1px solid #ccc}"
    "table{border-collapse:collapse;font-size:13px;margin:8px 0}"
    "td,th{border:1px solid #ddd;padding:3px 8px;text-align:left}th{background:#f2f2f2}"
    "tr.flagged td{background:#fde0e0;font-weight:bold}"
    ".tiles{display:flex;gap:16px}.tile{border:1px solid #ccc;border-radius:6px;padding:10px 18px}"
    ".tile b{display:block;font-size:26px}svg{font-size:12px;display:block;margin:8px 0}"
    "svg .tick{font-size:10px;fill:#555}svg .title{font-weight:bold}.spread{display:flex;flex-wrap:wrap;gap:12px}"
    ".note{color:#555;font-size:13px}";

}  // namespace

std::string report_html(const Report& r) {
    const YieldFigures& y = r.yield;
    std::string s = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                    "<title>Yield report</title><style>";
    s += kStyle;
    s += "</style></head><body>\n<h1>Yield report</h1>\n<p class=\"note\">" + markup_escape(r.source);
    const ReportFilter& f = r.filter;
    if (!f.since.empty()) s += " &middot; since " + markup_escape(f.since);
    if (!f.until.empty()) s += " &middot; until " + markup_escape(f.until);
    if (!f.plan.empty()) s += " &middot; plan " + markup_escape(f.plan);
    if (f.station) s += " &middot; station " + std::to_string(*f.station);
    if (f.fixture_slot) s += " &middot; slot " + std::to_string(*f.fixture_slot);
    s += "</p>\n";

    s += "<h2>Yield</h2>\n<div class=\"tiles\">";
    s += "<div class=\"tile\" id=\"first-pass-yield\">first-pass yield<b>" + percent(y.first_pass_yield) + "</b>" +
         std::to_string(y.first_pass) + " of " + std::to_string(y.boards) + " boards</div>";
    s += "<div class=\"tile\" id=\"final-yield\">final yield<b>" + percent(y.final_yield) + "</b>" +
         std::to_string(y.final_pass) + " of " + std::to_string(y.boards) + " boards</div>";
    s += "<div class=\"tile\">tests<b>" + std::to_string(y.tests) + "</b>" + std::to_string(y.unknown) + " unknown, " +
         std::to_string(y.unfinished) + " unfinished</div></div>\n";
    s += horizontal_bars("chart-yield",
                         {{"first pass", 100 * y.first_pass_yield, percent(y.first_pass_yield), false},
                          {"final", 100 * y.final_yield, percent(y.final_yield), false}},
                         100, " %");

    s += "<h2>Failing steps</h2>\n";
    if (r.pareto.empty()) {
        s += "<p>No step failed.</p>\n";
    } else {
        std::vector<Bar> bars;
        std::vector<double> cumulative;
        std::vector<std::vector<std::string>> rows;
        for (const ParetoRow& p : r.pareto) {
            bars.push_back({p.step, static_cast<double>(p.failures), std::to_string(p.failures), false});
            cumulative.push_back(p.cumulative);
            std::string reasons;
            for (size_t i = 0; i < p.reasons.size() && i < 5; ++i) {
                const auto& [reason, count] = p.reasons[i];
                reasons += (reasons.empty() ? "" : "; ") + (reason.empty() ? "(none given)" : reason) + " (" +
                           std::to_string(count) + ")";
            }
            if (p.reasons.size() > 5) reasons += "; " + std::to_string(p.reasons.size() - 5) + " more";
            rows.push_back({p.step, std::to_string(p.failures), percent(p.share), percent(p.cumulative), reasons});
        }
        s += pareto_chart("chart-pareto", bars, cumulative);
        s += table({"step", "fails", "share", "cumulative", "reasons"}, rows);
    }

    s += "<h2>Yield per slot</h2>\n<p class=\"note\">Each slot against the rest of its fixture: one-sided Fisher "
         "exact test, Bonferroni-corrected for the fixture's number of slots; a slot is flagged (red) when the "
         "corrected p is below " + fixed(r.alpha, 2) + ". The dashed line is the rest of the fixture's yield.</p>\n";
    {
        std::vector<Bar> bars;
        std::vector<double> reference;
        std::vector<std::vector<std::string>> rows;
        std::vector<bool> flagged;
        for (const SlotYield& slot : r.slots) {
            bars.push_back({slot.fixture + " #" + std::to_string(slot.slot), slot.yield, percent(slot.yield), slot.flagged});
            reference.push_back(slot.others_yield);
            char p[32], pa[32];
            snprintf(p, sizeof(p), "%.3g", slot.p_value);
            snprintf(pa, sizeof(pa), "%.3g", slot.p_adjusted);
            rows.push_back({slot.fixture, std::to_string(slot.slot), std::to_string(slot.tests),
                            std::to_string(slot.passed), percent(slot.yield), percent(slot.others_yield), p, pa,
                            slot.flagged ? "worse than its fixture" : ""});
            flagged.push_back(slot.flagged);
        }
        s += share_columns("chart-slots", bars, reference);
        s += table({"fixture", "slot", "tests", "passed", "yield", "others", "p", "p adjusted", ""}, rows, flagged);
    }

    s += "<h2>Step durations</h2>\n<p class=\"note\">Bar: median; whisker: 95th percentile (nearest rank).</p>\n";
    {
        std::vector<std::string> labels;
        std::vector<double> medians, p95s;
        std::vector<std::vector<std::string>> rows;
        for (const DurationRow& d : r.durations) {
            labels.push_back(d.step);
            medians.push_back(d.median_ms);
            p95s.push_back(d.p95_ms);
            rows.push_back({d.step, std::to_string(d.count), fixed(d.median_ms, 1), fixed(d.p95_ms, 1), fixed(d.max_ms, 1)});
        }
        s += duration_bars("chart-durations", labels, medians, p95s);
        s += table({"step", "count", "median ms", "p95 ms", "max ms"}, rows);
    }

    s += "<h2>Measured values against their limits</h2>\n";
    if (r.spread.empty()) {
        s += "<p>No step measured a number.</p>\n";
    } else {
        s += "<div class=\"spread\">\n";
        for (size_t i = 0; i < r.spread.size(); ++i) {
            const SpreadRow& sp = r.spread[i];
            s += histogram("chart-spread-" + std::to_string(i + 1), sp.step, sp.histogram, sp.histogram_from,
                           sp.histogram_to, sp.low, sp.high);
        }
        s += "</div>\n";
        std::vector<std::vector<std::string>> rows;
        for (const SpreadRow& sp : r.spread) {
            rows.push_back({sp.step, std::to_string(sp.count), fixed(sp.min, 2), fixed(sp.mean, 2), fixed(sp.max, 2),
                            fixed(sp.sd, 2), sp.low ? fixed(*sp.low, 2) : "-", sp.high ? fixed(*sp.high, 2) : "-",
                            std::to_string(sp.below), std::to_string(sp.above), sp.cpk ? fixed(*sp.cpk, 2) : "-"});
        }
        s += table({"step", "count", "min", "mean", "max", "sd", "low", "high", "below", "above", "Cpk"}, rows);
    }

    s += "<h2>Retested boards</h2>\n<p>" + std::to_string(r.retests.size()) + " boards failed, then passed.</p>\n";
    if (!r.retests.empty()) {
        std::vector<std::vector<std::string>> rows;
        for (const RetestRow& t : r.retests) {
            rows.push_back({t.board, std::to_string(t.tests), t.first_failed_step, t.first_reason, t.passed_at});
        }
        s += table({"board", "tests", "first failed step", "its reason", "passed at"}, rows);
    }
    return s + "</body></html>\n";
}

}  // namespace results
