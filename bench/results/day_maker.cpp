#include "day_maker.hpp"

#include <cstdio>
#include <deque>
#include <random>
#include <vector>

#include "pc/results/row_ids.hpp"

namespace results_bench {

using namespace results;

namespace {

struct StepShape {
    const char* name;
    const char* command;
    double fail_share;   // of the phones that reach it
    const char* reason;  // when it fails without a number out of its limits
    double median_ms;
    // A measured number: mean, spread and limits (none when mean is 0).
    double mean = 0, sd = 0, low = 0, high = 0;
};

const StepShape kSteps[] = {
    {"enter-amt", "enter-amt", 0.002, "nothing came within 3000 ms", 1},
    {"version", "version", 0.0, "", 1},
    {"board number", "board set", 0.001, "the line failed or hung up", 4},
    {"board number read back", "board get", 0.003, "read back SN-0000, expected the board's", 1},
    {"card", "card", 0.006, "no card: the reader answered 0 KiB", 35, 30436000, 90000, 30000000, 31000000},
    {"battery voltage", "send", 0.0, "", 12, 3950, 45, 3800, 4150},
    {"charger current", "send", 0.0, "", 14, 480, 22, 420, 560},
    {"RF table write", "rf write", 0.002, "the agent refused: 12", 22},
    {"calibration read back", "rf read", 0.001, "slice differs from the one written", 6},
    {"RF table read whole", "rf read", 0.001, "nothing came within 3000 ms", 380},
    {"test result", "result get", 0.0, "", 1},
    {"verdict", "result set", 0.002, "no answer behind the pre-response", 2100},
};
constexpr int kStepCount = sizeof(kSteps) / sizeof(kSteps[0]);

std::string utc_at(int64_t ms) {
    const time_t seconds = static_cast<time_t>(ms / 1000);
    struct tm parts {};
    gmtime_r(&seconds, &parts);
    char text[64];
    snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900, parts.tm_mon + 1,
             parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<int>(ms % 1000));
    return text;
}

std::string number_text(double x) {
    char text[32];
    snprintf(text, sizeof(text), "%.6g", x);
    return text;
}

}  // namespace

bool make_day(Store& store, const DayShape& shape, std::string* error) {
    std::mt19937_64 random(shape.seed);
    std::uniform_real_distribution<double> uniform(0, 1);
    const int64_t day_start = 1795672800000;  // 2026-11-26T06:00:00Z
    struct SlotClock {
        int64_t now_ms;
        int64_t cycle = 0;
    };
    std::vector<std::string> run_ids;
    std::vector<SlotClock> clocks;
    for (int s = 0; s < shape.stations; ++s) {
        RunRow run;
        run.station = 11 + s;
        run.host = "linepc" + std::to_string(s + 1);
        run.started = utc_at(day_start);
        run.id = make_run_id(run.station, run.host, run.started);
        run.plan = "pc/plans/fixture.toml";
        run.plan_hash = "4f2d0c1b9e8a7d6c5b4a39281706f5e4d3c2b1a09f8e7d6c5b4a392817060504";
        if (!store.add_run(run, error)) return false;
        run_ids.push_back(run.id);
        for (int k = 0; k < shape.slots; ++k) clocks.push_back({day_start + 3000 * k});
    }
    std::deque<std::string> retests;
    int64_t next_board = 1;
    int64_t done = 0;
    while (done < shape.phones) {
        const bool ok = store.in_one_transaction([&] {
            for (int batch = 0; batch < 1000 && done < shape.phones; ++batch, ++done) {
                // The slot that frees first takes the next phone: a retest
                // when one waits, a new board otherwise.
                size_t c = 0;
                for (size_t i = 1; i < clocks.size(); ++i) {
                    if (clocks[i].now_ms < clocks[c].now_ms) c = i;
                }
                SlotClock& clock = clocks[c];
                const int station = static_cast<int>(c) / shape.slots;
                const int fixture_slot = static_cast<int>(c) % shape.slots + 1;
                std::string board;
                if (!retests.empty() && uniform(random) < 0.5) {
                    board = retests.front();
                    retests.pop_front();
                } else {
                    char text[32];
                    snprintf(text, sizeof(text), "SN-%06lld", static_cast<long long>(next_board++));
                    board = text;
                }
                SlotRow slot;
                slot.run_id = run_ids[static_cast<size_t>(station)];
                slot.id = make_slot_id(slot.run_id, fixture_slot, ++clock.cycle);
                slot.fixture_slot = fixture_slot;
                slot.device = "/dev/ttyACM" + std::to_string(fixture_slot - 1);
                slot.board = board;
                slot.started = utc_at(clock.now_ms);
                if (!store.add_slot(slot, error)) return false;
                const bool worn = 11 + station == shape.bad_station && fixture_slot == shape.bad_slot;
                std::string failed_reason;
                std::string failed_step;
                int64_t t = clock.now_ms;
                for (int i = 0; i < kStepCount; ++i) {
                    const StepShape& shape_i = kSteps[i];
                    StepRow step;
                    step.slot_id = slot.id;
                    step.index = i + 1;
                    step.name = shape_i.name;
                    step.command = shape_i.command;
                    step.request = R"({"cmd":0})";
                    step.answer = R"({"outcome":"accepted"})";
                    step.measured = "null";
                    step.limits = "{}";
                    if (!failed_step.empty()) {
                        step.verdict = "not-run";
                        step.reason = "an earlier step failed";
                    } else {
                        step.duration_ms = shape_i.median_ms * (0.8 + 0.4 * uniform(random)) +
                                           (uniform(random) < 0.05 ? shape_i.median_ms : 0);
                        double share = shape_i.fail_share;
                        if (worn && std::string(shape_i.name) == "card") share += shape.bad_slot_card_failures;
                        bool failed = uniform(random) < share;
                        std::string reason = shape_i.reason;
                        if (shape_i.mean != 0) {
                            std::normal_distribution<double> value(shape_i.mean, shape_i.sd);
                            const double x = value(random);
                            step.measured = number_text(x);
                            step.limits = "{\"min\":" + number_text(shape_i.low) + ",\"max\":" + number_text(shape_i.high) + "}";
                            if (x < shape_i.low || x > shape_i.high) {
                                failed = true;
                                reason = number_text(x) + (x < shape_i.low ? " below " + number_text(shape_i.low)
                                                                           : " above " + number_text(shape_i.high));
                            } else if (failed) {
                                step.measured = "null";
                            }
                        }
                        if (failed && std::string(shape_i.name) == "enter-amt") step.duration_ms = 3001;
                        step.verdict = failed ? "fail" : "pass";
                        if (failed) {
                            step.reason = reason;
                            failed_reason = reason;
                            failed_step = shape_i.name;
                        }
                        t += static_cast<int64_t>(step.duration_ms);
                    }
                    if (!store.add_step(step, error)) return false;
                }
                const bool verdict_lost = failed_step == "verdict";
                const Verdict v = failed_step.empty() ? Verdict::kPass : verdict_lost ? Verdict::kUnknown : Verdict::kFail;
                if (!store.finish_slot(slot.id, utc_at(t), v, failed_reason, error)) return false;
                if (v != Verdict::kPass && uniform(random) < 0.8) retests.push_back(board);
                // The operator takes the phone out and puts the next one in.
                clock.now_ms = t + 6000 + static_cast<int64_t>(4000 * uniform(random));
            }
            return true;
        }, error);
        if (!ok) return false;
    }
    return true;
}

}  // namespace results_bench
