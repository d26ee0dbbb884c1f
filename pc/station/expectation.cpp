#include "pc/station/expectation.hpp"

#include "pc/lib/hex_text.hpp"

namespace station {
namespace {

CheckResult unmet(std::string why) { return {false, std::move(why)}; }

// The first differing byte, or the lengths, in a few words.
std::string difference(const std::vector<uint8_t>& got, const std::vector<uint8_t>& want) {
    if (got.size() != want.size()) {
        return std::to_string(got.size()) + " bytes where " + std::to_string(want.size()) + " belong";
    }
    for (size_t i = 0; i < got.size(); ++i) {
        if (got[i] != want[i]) {
            char line[96];
            snprintf(line, sizeof(line), "byte %zu is %02X where %02X belongs", i, got[i], want[i]);
            return line;
        }
    }
    return "equal";
}

CheckResult bytes_equal(const Measured& got, const std::vector<uint8_t>& want, const std::string& what) {
    if (!got.bytes) return unmet("no bytes came to compare with " + what);
    if (*got.bytes != want) return unmet("not equal to " + what + ": " + difference(*got.bytes, want));
    return {};
}

}  // namespace

CheckResult check(const Step& step, const Plan& plan, const Measured& got, const SlotValues& values) {
    const Expectation& x = step.expect;
    if (x.equals) {
        const std::string want = expand(*x.equals, values.board, values.slot, values.today);
        if (!got.text) return unmet("no text came to compare with \"" + want + "\"");
        if (*got.text != want) return unmet("\"" + *got.text + "\" where \"" + want + "\" belongs");
    }
    if (x.pattern) {
        if (!got.text) return unmet("no text came to match " + *x.matches);
        if (!std::regex_search(*got.text, *x.pattern)) return unmet("\"" + *got.text + "\" does not match " + *x.matches);
    }
    if (x.min || x.max) {
        if (!got.number) return unmet("no number came to hold against the limits");
        if (x.min && *got.number < *x.min) {
            return unmet(std::to_string(*got.number) + " is below the lower limit " + std::to_string(*x.min));
        }
        if (x.max && *got.number > *x.max) {
            return unmet(std::to_string(*got.number) + " is above the upper limit " + std::to_string(*x.max));
        }
    }
    if (x.bytes) {
        CheckResult r = bytes_equal(got, *x.bytes, tools::to_hex(*x.bytes));
        if (!r.pass) return r;
    }
    if (x.golden_path) {
        CheckResult r = bytes_equal(got, x.golden, "the golden file " + *x.golden_path);
        if (!r.pass) return r;
    }
    if (x.written_by) {
        const Step& write = plan.steps[*x.written_by];
        CheckResult r = bytes_equal(got, write.data, "what step " + std::to_string(*x.written_by + 1) + " wrote");
        if (!r.pass) return r;
    }
    return {};
}

}  // namespace station
