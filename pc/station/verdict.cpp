#include "pc/station/verdict.hpp"

#include <algorithm>

namespace station {

uint32_t verdict_wait_ms(uint32_t timeout_ms, uint32_t verdict_ms) {
    const uint64_t at_least = static_cast<uint64_t>(kStoreCreationWaitMs) + timeout_ms;
    return static_cast<uint32_t>(std::min<uint64_t>(std::max<uint64_t>(at_least, verdict_ms), UINT32_MAX));
}

bool write_answered(tools::Outcome write) {
    return write == tools::Outcome::kAccepted || write == tools::Outcome::kRefused ||
           write == tools::Outcome::kNoStation || write == tools::Outcome::kMalformed;
}

VerdictCall decide_verdict(const VerdictInputs& in) {
    const SlotVerdict meant = in.plan_passed ? SlotVerdict::kPass : SlotVerdict::kFail;
    if (!write_answered(in.write)) {
        return {SlotVerdict::kUnknown, "the verdict write went unanswered; the phone may hold it or not"};
    }
    if (in.held) {
        if (*in.held == kVerdictPass) {
            if (in.plan_passed) return {SlotVerdict::kPass, ""};
            return {SlotVerdict::kUnknown, "the phone holds pass though the plan failed"};
        }
        if (!in.plan_passed) return {SlotVerdict::kFail, ""};
        const char* how = in.write == tools::Outcome::kAccepted  ? " after pass was stored"
                          : in.write == tools::Outcome::kMalformed ? " after a malformed answer to the verdict"
                                                                    : ": the verdict write was refused";
        return {SlotVerdict::kFail, "the phone holds result " + std::to_string(*in.held) + how};
    }
    // The read back did not come: the write's own answer is all there is.
    if (in.write == tools::Outcome::kAccepted) return {meant, ""};
    return {SlotVerdict::kUnknown, "the verdict write was not accepted and the stored result could not be read back"};
}

}  // namespace station
