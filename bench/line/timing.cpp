#include "timing.hpp"

namespace linebench {

bool time_exchanges(PcSide& pc, std::span<const uint8_t> frame, size_t count, std::vector<double>* us) {
    if (us != nullptr) us->reserve(us->size() + count);
    for (size_t i = 0; i < count; ++i) {
        auto t0 = Clock::now();
        if (!pc.exchange(frame)) return false;
        if (us != nullptr) us->push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    return true;
}

}  // namespace linebench
