#include "pc/results/rows.hpp"

namespace results {

const char* verdict_text(Verdict verdict) {
    switch (verdict) {
        case Verdict::kPass: return "pass";
        case Verdict::kFail: return "fail";
        case Verdict::kUnknown: return "unknown";
    }
    return "unknown";
}

std::optional<Verdict> verdict_of(const std::string& text) {
    if (text == "pass") return Verdict::kPass;
    if (text == "fail") return Verdict::kFail;
    if (text == "unknown") return Verdict::kUnknown;
    return std::nullopt;
}

}  // namespace results
