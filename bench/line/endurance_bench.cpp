// A long run of forwarded round trips: the agent's resident memory and open
// descriptors before and after must stay where they were (no allocation per
// message, no descriptor per message).
#include <array>

#include "families.hpp"
#include "proc_sample.hpp"
#include "timing.hpp"

namespace linebench {

void measure_endurance(const Lines& lines, const Scale& scale, Report& report) {
    const std::array<uint8_t, 4> body = {0x01, 0x02, 0x03, 0x04};
    Bytes frame = pc_frame(kForwardedCmd, body);
    PcSide& pc = *lines.agent->pc;
    pid_t pid = lines.agent->program->pid();
    size_t warm_up = scale.of(2000);  // first touches of buffers and stacks are no growth
    if (!time_exchanges(pc, frame, warm_up, nullptr)) {
        report.note("endurance: the agent did not answer");
        return;
    }
    ProcSample before = sample_process(pid);
    size_t count = scale.of(100000);
    if (!time_exchanges(pc, frame, count, nullptr)) {
        report.note("endurance: the agent stopped answering");
        return;
    }
    ProcSample after = sample_process(pid);
    std::string n = std::to_string(count) + " round trips (after " + std::to_string(warm_up) + " to warm up)";
    report.add({"resident memory over " + n, std::to_string(before.rss_kib) + " -> " +
                    std::to_string(after.rss_kib) + " KiB",
                "flat", ratio_text(static_cast<double>(after.rss_kib), static_cast<double>(before.rss_kib)), "1.00"});
    report.add({"descriptors over " + n,
                std::to_string(before.descriptors) + " -> " + std::to_string(after.descriptors), "unchanged", "",
                "same"});
}

}  // namespace linebench
