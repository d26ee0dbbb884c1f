// A step's expect = { ... }: which expectations its command's answer can
// meet, their values, and the rf write that a written = true refers to.
#include <regex>

#include "pc/station/plan_reader.hpp"

namespace station {

bool PlanReader::read_expectation(const toml::node& node, Step& step, Plan& plan) {
    const toml::table* t = node.as_table();
    if (t == nullptr) {
        fail(line_of(node), "expect is a table, e.g. expect = { equals = \"TEXT\" }");
        return false;
    }
    Expectation& x = step.expect;
    for (auto&& [key, value] : *t) {
        const std::string k(key.str());
        const int line = line_of(value);
        if (k != "equals" && k != "matches" && k != "min" && k != "max" && k != "bytes" && k != "golden" &&
            k != "written") {
            fail(line_of(key), "unknown expectation " + k +
                                   " (there are equals, matches, min, max, bytes, golden, written)");
            return false;
        }
        if (!expectation_fits(step.command, k)) {
            fail(line_of(key), std::string("the answer to ") + command_name(step.command) + " has nothing for " + k);
            return false;
        }
        if (k == "equals") {
            auto v = text(value, k);
            if (!v || !placeholders_ok(*v, line, plan)) return false;
            x.equals = *v;
        } else if (k == "matches") {
            auto v = text(value, k);
            if (!v) return false;
            try {
                x.pattern = std::regex(*v, std::regex::extended);
            } catch (const std::regex_error& e) {
                fail(line, "matches is no regular expression: " + *v);
                return false;
            }
            x.matches = *v;
        } else if (k == "min" || k == "max") {
            auto v = integer(value, k, INT64_MIN, INT64_MAX);
            if (!v) return false;
            (k == "min" ? x.min : x.max) = *v;
        } else if (k == "bytes") {
            auto v = hex(value, k);
            if (!v) return false;
            x.bytes = std::move(*v);
        } else if (k == "golden") {
            auto bytes = file(value, "golden file", step.len);
            if (!bytes) return false;
            if (bytes->size() != step.len) {
                fail(line, "golden file holds " + std::to_string(bytes->size()) + " bytes, the read " +
                               std::to_string(step.len));
                return false;
            }
            x.golden_path = value.value_or(std::string());
            x.golden = std::move(*bytes);
        } else if (k == "written") {
            if (!value.is_boolean() || !value.value_or(false)) {
                fail(line, "written is true or absent");
                return false;
            }
            x.written_by = find_write(step, plan);
            if (!x.written_by) {
                fail(line, "written = true, but no earlier rf write of the plan wrote table " +
                               std::to_string(step.table) + " at " + std::to_string(step.offset) + ", " +
                               std::to_string(step.len) + " bytes");
                return false;
            }
        }
    }
    if (x.min && x.max && *x.min > *x.max) {
        fail(line_of(node), "min " + std::to_string(*x.min) + " is above max " + std::to_string(*x.max));
        return false;
    }
    return true;
}

std::optional<size_t> PlanReader::find_write(const Step& step, const Plan& plan) {
    for (size_t i = plan.steps.size(); i-- > 0;) {
        const Step& w = plan.steps[i];
        if (w.command == Command::kRfWrite && w.table == step.table && w.offset == step.offset &&
            w.len == step.len) {
            return i;
        }
    }
    return std::nullopt;
}

}  // namespace station
