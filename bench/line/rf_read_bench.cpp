// RF table reads (command 61) in 32 KiB slices, one at a time, through the
// whole file of the table, against the raw echo answering each request with
// the same 32 KiB: the raw bandwidth of the pseudo-terminal.
#include <array>

#include "families.hpp"
#include "timing.hpp"

namespace linebench {
namespace {

constexpr uint32_t kSlice = 32768;
constexpr size_t kRounds = 6;

Bytes read_request(uint32_t offset) {
    std::array<uint8_t, 12> body{};
    const uint32_t words[3] = {kRfTableType, offset, kSlice};
    for (size_t w = 0; w < 3; ++w) {
        for (size_t b = 0; b < 4; ++b) body[w * 4 + b] = static_cast<uint8_t>(words[w] >> (8 * b));
    }
    return pc_frame(61, body);
}

// One pass over the table, slice by slice; the seconds, or nothing on a failure.
std::optional<double> read_table(PcSide& pc, const std::vector<Bytes>& requests) {
    auto t0 = Clock::now();
    for (const Bytes& req : requests) {
        auto f = pc.exchange(req);
        if (!f || f->cmd != 62 || f->size != kSlice + 24) return std::nullopt;
    }
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

}  // namespace

void measure_rf_reads(const Lines& lines, const Scale& scale, Report& report) {
    std::vector<Bytes> requests;
    size_t slices = scale.of(kRfTableBytes / kSlice);
    for (size_t i = 0; i < slices; ++i) requests.push_back(read_request(static_cast<uint32_t>(i * kSlice)));
    auto check = lines.agent->pc->exchange(requests[0]);
    if (!check || check->cmd != 62) {
        report.note("RF table reads (61): no response 62 from the agent; row skipped");
        return;
    }
    if (check->word16 == kEchoMark) {
        report.note("RF table reads (61): this build still forwards 61 to wfmgr; row skipped");
        return;
    }
    if (check->word16 != 0 || check->size != kSlice + 24) {
        report.note("RF table reads (61): the agent answered result_code " + std::to_string(check->word16) +
                    " with " + std::to_string(check->size) + " bytes; row skipped");
        return;
    }
    double bytes = static_cast<double>(kSlice) * static_cast<double>(slices);
    std::vector<double> rates[2];  // MB/s of each pass; the figure is their median
    PcSide* pcs[2] = {lines.agent->pc.get(), lines.raw->pc.get()};
    for (size_t r = 0; r < kRounds; ++r) {
        for (int i = 0; i < 2; ++i) {
            auto s = read_table(*pcs[i], requests);
            if (!s) {
                report.note(std::string("RF table reads (61): ") + (i == 0 ? "the agent" : "the raw echo") +
                            " failed a slice");
                return;
            }
            rates[i].push_back(mb_per_s(bytes, *s));
        }
    }
    double agent = quantile(rates[0], 0.5), raw = quantile(rates[1], 0.5);
    report.add({"RF table reads (61), 32 KiB slices", fixed(agent, 1) + " MB/s", "raw line " + fixed(raw, 1) + " MB/s",
                ratio_text(agent, raw), ""});
}

}  // namespace linebench
