// Bulk forwarding: 4020-byte frames through the agent to wfmgr's echo, one at
// a time and eight in flight, against socat relaying the same line to the
// same echo. Each frame is answered by 40 bytes; the figure is the PC's
// frames per second in megabytes.
#include <array>

#include "families.hpp"
#include "timing.hpp"

namespace linebench {
namespace {

constexpr size_t kBody = 4000;  // 4020 bytes on the wire
constexpr size_t kRounds = 6;

struct Pace {
    const char* figure;
    size_t window;
    size_t frames_per_round;
    const char* goal;
};

}  // namespace

void measure_bulk(const Lines& lines, const Scale& scale, Report& report) {
    Bytes body(kBody);
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<uint8_t>(i * 7);
    Bytes frame = pc_frame(kForwardedCmd, body);
    const std::array<Pace, 2> paces = {Pace{"bulk, 4020-byte frames, one at a time", 1, 500, ">= 0.7"},
                                       Pace{"bulk, 4020-byte frames, 8 in flight", 8, 1500, ">= 0.7"}};
    for (const Pace& pace : paces) {
        size_t count = scale.of(pace.frames_per_round);
        double bytes = static_cast<double>(frame.size() * count);
        std::vector<double> rates[2];  // MB/s of each round; the figure is their median
        PcSide* pcs[2] = {lines.agent->pc.get(), lines.socat->pc.get()};
        bool ok = true;
        for (size_t r = 0; r < kRounds && ok; ++r) {
            for (int i = 0; i < 2 && ok; ++i) {
                auto s = pcs[i]->pipeline(frame, count, pace.window, Millis(120000));
                if (!s) {
                    report.note(std::string(pace.figure) + ": " + (i == 0 ? "the agent" : "socat") +
                                " did not answer every frame");
                    ok = false;
                } else {
                    rates[i].push_back(mb_per_s(bytes, *s));
                }
            }
        }
        if (!ok) continue;
        double agent = quantile(rates[0], 0.5), socat = quantile(rates[1], 0.5);
        report.add({pace.figure, fixed(agent, 1) + " MB/s", "socat " + fixed(socat, 1) + " MB/s",
                    ratio_text(agent, socat), pace.goal});
    }
}

}  // namespace linebench
