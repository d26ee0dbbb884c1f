// What a slot's record says after the verdict write (command 91) and its read
// back (command 89), so that the record and the phone's stored result never
// contradict each other: the record says pass only when the phone holds
// pass, and a write that went unanswered leaves the verdict unknown, since
// the agent may have stored it after the station stopped waiting.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "pc/lib/pc_exchange.hpp"

namespace station {

// The verdict's test result: 1 passed, 0 failed.
constexpr uint32_t kVerdictPass = 1;
constexpr uint32_t kVerdictFail = 0;

// How long the verdict write waits for its answer: the first command 89 or
// 91 on a phone creates its test result store and answers only after the
// store's two-second creation wait, so the plan's time per answer is not
// enough. At least that wait plus `timeout_ms`, and at least `verdict_ms`.
constexpr uint32_t kStoreCreationWaitMs = 2000;
uint32_t verdict_wait_ms(uint32_t timeout_ms, uint32_t verdict_ms);

enum class SlotVerdict { kPass, kFail, kUnknown };

struct VerdictInputs {
    bool plan_passed = false;          // every step passed: the station wrote pass
    tools::Outcome write = tools::Outcome::kNothing;  // of command 91
    std::optional<uint32_t> held;      // the result read back, when the read came
};

struct VerdictCall {
    SlotVerdict verdict = SlotVerdict::kUnknown;
    std::string why;  // for fail and unknown: what the phone did
};

// Whether the write's answer came at all (accepted, refused or malformed):
// only then is the result read back.
bool write_answered(tools::Outcome write);

VerdictCall decide_verdict(const VerdictInputs& in);

}  // namespace station
