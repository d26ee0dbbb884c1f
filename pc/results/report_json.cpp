// The report as JSON, for the line's own tools: every figure, unrounded.
#include "pc/results/report.hpp"

namespace results {

namespace {

nlohmann::json optional_number(const std::optional<double>& x) { return x ? nlohmann::json(*x) : nlohmann::json(nullptr); }

}  // namespace

nlohmann::json report_json(const Report& r) {
    const ReportFilter& f = r.filter;
    nlohmann::json j;
    j["source"] = r.source;
    j["filter"] = {{"since", f.since}, {"until", f.until}, {"plan", f.plan},
                   {"station", f.station ? nlohmann::json(*f.station) : nlohmann::json(nullptr)},
                   {"fixture_slot", f.fixture_slot ? nlohmann::json(*f.fixture_slot) : nlohmann::json(nullptr)}};
    const YieldFigures& y = r.yield;
    j["yield"] = {{"boards", y.boards}, {"first_pass", y.first_pass}, {"final_pass", y.final_pass},
                  {"first_pass_yield", y.first_pass_yield}, {"final_yield", y.final_yield}, {"tests", y.tests},
                  {"unknown", y.unknown}, {"unfinished", y.unfinished}};
    j["pareto"] = nlohmann::json::array();
    for (const ParetoRow& p : r.pareto) {
        nlohmann::json reasons = nlohmann::json::array();
        for (const auto& [reason, count] : p.reasons) reasons.push_back({{"reason", reason}, {"count", count}});
        j["pareto"].push_back({{"step", p.step}, {"failures", p.failures}, {"share", p.share},
                               {"cumulative", p.cumulative}, {"reasons", reasons}});
    }
    j["slots"] = {{"test", "one-sided Fisher exact, slot against the rest of its fixture, Bonferroni"}, {"alpha", r.alpha},
                  {"rows", nlohmann::json::array()}};
    for (const SlotYield& s : r.slots) {
        j["slots"]["rows"].push_back({{"fixture", s.fixture}, {"slot", s.slot}, {"tests", s.tests}, {"passed", s.passed},
                                      {"yield", s.yield}, {"others_yield", s.others_yield}, {"p", s.p_value},
                                      {"p_adjusted", s.p_adjusted}, {"flagged", s.flagged}});
    }
    j["durations"] = nlohmann::json::array();
    for (const DurationRow& d : r.durations) {
        j["durations"].push_back({{"step", d.step}, {"count", d.count}, {"median_ms", d.median_ms}, {"p95_ms", d.p95_ms},
                                  {"max_ms", d.max_ms}});
    }
    j["spread"] = nlohmann::json::array();
    for (const SpreadRow& s : r.spread) {
        j["spread"].push_back({{"step", s.step}, {"count", s.count}, {"min", s.min}, {"mean", s.mean}, {"max", s.max},
                               {"sd", s.sd}, {"low", optional_number(s.low)}, {"high", optional_number(s.high)},
                               {"below", s.below}, {"above", s.above}, {"cpk", optional_number(s.cpk)},
                               {"histogram", {{"from", s.histogram_from}, {"to", s.histogram_to}, {"counts", s.histogram}}}});
    }
    j["retests"] = nlohmann::json::array();
    for (const RetestRow& t : r.retests) {
        j["retests"].push_back({{"board", t.board}, {"tests", t.tests}, {"first_failed_step", t.first_failed_step},
                                {"first_reason", t.first_reason}, {"passed_at", t.passed_at}});
    }
    return j;
}

}  // namespace results
