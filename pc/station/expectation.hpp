// Whether a step's answer meets what the plan expects of it. The runner
// takes the measured value out of the answer; the check compares.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pc/station/plan.hpp"

namespace station {

// What an answer gave: the text read back, a number, bytes. Each is there
// only when the command's answer carries it.
struct Measured {
    std::optional<std::string> text;
    std::optional<int64_t> number;
    std::optional<std::vector<uint8_t>> bytes;
};

// Where the placeholders of a text come from.
struct SlotValues {
    std::string board;
    size_t slot = 1;
    std::string today;
};

struct CheckResult {
    bool pass = true;
    std::string why;  // of the first unmet expectation; empty when passed
};

// Checks every expectation of `step` against `got`. `plan` gives what an
// earlier rf write wrote.
CheckResult check(const Step& step, const Plan& plan, const Measured& got, const SlotValues& values);

}  // namespace station
