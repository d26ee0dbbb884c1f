#include "pc/results/fisher_test.hpp"

#include <algorithm>
#include <cmath>

namespace results {

namespace {

double log_choose(uint64_t n, uint64_t k) {
    return std::lgamma(static_cast<double>(n) + 1) - std::lgamma(static_cast<double>(k) + 1) -
           std::lgamma(static_cast<double>(n - k) + 1);
}

}  // namespace

double fisher_one_sided_worse(uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
    const uint64_t slot = a + b;         // the slot's phones
    const uint64_t failed = a + c;       // failures in the fixture
    const uint64_t total = a + b + c + d;
    if (slot == 0 || failed == 0) return 1.0;
    // P(X = x) = C(failed, x) C(total - failed, slot - x) / C(total, slot),
    // summed from x = a to the largest x the margins allow.
    const uint64_t top = std::min(slot, failed);
    const double log_all = log_choose(total, slot);
    double p = 0;
    for (uint64_t x = a; x <= top; ++x) {
        if (slot - x > total - failed) continue;
        p += std::exp(log_choose(failed, x) + log_choose(total - failed, slot - x) - log_all);
    }
    return std::min(1.0, p);
}

}  // namespace results
