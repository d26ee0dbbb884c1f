// The report page's charts, drawn as inline SVG by hand: bars, a line,
// axis ticks and labels, no script and nothing fetched, so that the page is
// one file that opens anywhere, offline.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace results {

// Text for XML: & < > " and ' escaped.
std::string markup_escape(const std::string& text);

struct Bar {
    std::string label;
    double value = 0;
    std::string note;       // shown at the bar's end
    bool flagged = false;   // drawn in the warning colour
};

// Horizontal bars from 0 to `max`, one row each.
std::string horizontal_bars(const std::string& id, const std::vector<Bar>& bars, double max, const std::string& unit);

// A Pareto chart: bars of counts, most first, with the cumulative share as a
// line on a 0-100 % scale at the right.
std::string pareto_chart(const std::string& id, const std::vector<Bar>& bars, const std::vector<double>& cumulative);

// Vertical bars of shares (0..1) with a dashed reference line per bar (the
// rest of the fixture's yield).
std::string share_columns(const std::string& id, const std::vector<Bar>& bars, const std::vector<double>& reference);

// Durations: a median bar and a p95 whisker per step.
std::string duration_bars(const std::string& id, const std::vector<std::string>& labels,
                          const std::vector<double>& medians, const std::vector<double>& p95s);

// A histogram over [from, to] with the limits as red lines.
std::string histogram(const std::string& id, const std::string& title, const std::vector<size_t>& counts, double from, double to,
                      std::optional<double> low, std::optional<double> high);

}  // namespace results
