#include "report.hpp"

#include <algorithm>
#include <cstdio>

namespace linebench {

void Report::print(std::ostream& out) const {
    out << "| Figure | Agent | Reference | Ratio | Goal |\n|---|---|---|---|---|\n";
    for (const Row& r : rows_) {
        out << "| " << r.figure << " | " << r.agent << " | " << r.reference << " | " << r.ratio << " | " << r.goal
            << " |\n";
    }
    for (const std::string& n : notes_) out << "\n- " << n;
    if (!notes_.empty()) out << "\n";
}

std::string fixed(double v, int decimals) {
    char text[64];
    snprintf(text, sizeof(text), "%.*f", decimals, v);
    return text;
}

std::string ratio_text(double agent, double reference) {
    if (reference <= 0) return "-";
    return fixed(agent / reference, 2);
}

double quantile(std::vector<double>& samples, double q) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    size_t i = static_cast<size_t>(q * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[std::min(i, samples.size() - 1)];
}

}  // namespace linebench
