// Round trips, one frame at a time: a forwarded command (24-byte frame, 40
// bytes back) through the agent and wfmgr's echo, against socat relaying the
// same line to the same echo and against the raw echo on the line; and a
// command the agent answers itself (45, read version) against the raw echo.
#include <array>

#include "families.hpp"
#include "proc_sample.hpp"
#include "timing.hpp"

namespace linebench {
namespace {

constexpr size_t kWarmUp = 300;
constexpr size_t kRounds = 10;
constexpr size_t kPerRound = 1000;

// Each round gives its own p50 and p99; the figure is their median, so that a
// round that a busy moment of the machine falls on does not decide it.
struct Variant {
    const char* name;
    PcSide* pc;
    std::vector<double> p50s;
    std::vector<double> p99s;
};

// Alternates the variants in rounds; false (with a note) when one fails.
bool run_rounds(std::span<Variant> variants, const Bytes& frame, const Scale& scale, Report& report,
                const char* what) {
    for (Variant& v : variants) {
        if (!time_exchanges(*v.pc, frame, scale.of(kWarmUp), nullptr)) {
            report.note(std::string(what) + ": " + v.name + " did not answer");
            return false;
        }
    }
    std::vector<double> us;
    for (size_t r = 0; r < kRounds; ++r) {
        for (Variant& v : variants) {
            us.clear();
            if (!time_exchanges(*v.pc, frame, scale.of(kPerRound), &us)) {
                report.note(std::string(what) + ": " + v.name + " stopped answering");
                return false;
            }
            v.p50s.push_back(quantile(us, 0.50));
            v.p99s.push_back(quantile(us, 0.99));
        }
    }
    return true;
}

void add_latency_rows(Report& report, const std::string& figure, Variant& agent, Variant& ref, const char* goal) {
    double a50 = quantile(agent.p50s, 0.5), r50 = quantile(ref.p50s, 0.5);
    double a99 = quantile(agent.p99s, 0.5), r99 = quantile(ref.p99s, 0.5);
    report.add({figure + ", p50", fixed(a50, 0) + " us", std::string(ref.name) + " " + fixed(r50, 0) + " us",
                ratio_text(a50, r50), goal});
    report.add({figure + ", p99", fixed(a99, 0) + " us", std::string(ref.name) + " " + fixed(r99, 0) + " us",
                ratio_text(a99, r99), goal});
}

}  // namespace

void measure_round_trips(const Lines& lines, const Scale& scale, Report& report) {
    const std::array<uint8_t, 4> body = {0x01, 0x02, 0x03, 0x04};
    Bytes frame = pc_frame(kForwardedCmd, body);
    auto check = lines.agent->pc->exchange(frame);
    if (!check || check->cmd != kForwardedCmd + 1 || check->word16 != kEchoMark) {
        report.note("forwarded round trip: the agent's answer did not come from wfmgr's echo");
        return;
    }
    std::array<Variant, 3> v = {Variant{"agent", lines.agent->pc.get(), {}, {}}, Variant{"socat", lines.socat->pc.get(), {}, {}},
                                Variant{"raw echo", lines.raw->pc.get(), {}, {}}};
    // Each hop between threads or processes is a wake-up of the one that
    // takes the bytes over: the relay's context switches per round trip.
    ProcSample agent_before = sample_process(lines.agent->program->pid());
    ProcSample socat_before = sample_process(lines.socat->program->pid());
    if (!run_rounds(v, frame, scale, report, "forwarded round trip")) return;
    double trips = static_cast<double>(scale.of(kWarmUp) + kRounds * scale.of(kPerRound));
    double agent_switches =
        static_cast<double>(activity_between(agent_before, sample_process(lines.agent->program->pid())).switches);
    double socat_switches =
        static_cast<double>(activity_between(socat_before, sample_process(lines.socat->program->pid())).switches);
    add_latency_rows(report, "forwarded round trip, 24-byte frame, 40 bytes back", v[0], v[1], "<= 1.3");
    add_latency_rows(report, "forwarded round trip against the raw echo (floor)", v[0], v[2], "");
    report.add({"context switches of the relay per forwarded round trip", fixed(agent_switches / trips, 1),
                "socat " + fixed(socat_switches / trips, 1), ratio_text(agent_switches, socat_switches), ""});
}

void measure_local_command(const Lines& lines, const Scale& scale, Report& report) {
    const std::array<uint8_t, 4> module = {0x01, 0x00, 0x00, 0x00};
    Bytes frame = pc_frame(45, module);
    auto check = lines.agent->pc->exchange(frame);
    if (!check || check->cmd != 46) {
        report.note("local command 45: no response 46 from the agent; row skipped");
        return;
    }
    if (check->word16 == kEchoMark) {
        report.note("local command 45: this build still forwards it to wfmgr; row skipped");
        return;
    }
    std::array<Variant, 2> v = {Variant{"agent", lines.agent->pc.get(), {}, {}},
                                Variant{"raw echo", lines.raw->pc.get(), {}, {}}};
    if (!run_rounds(v, frame, scale, report, "local command 45")) return;
    add_latency_rows(report, "local command round trip (45, read version)", v[0], v[1], "");
}

}  // namespace linebench
