// The agent at rest: CPU time and context switches of all its threads over
// 20 s in which nothing reaches it, in three states side by side (three
// agents on phones of their own): plain mode, USB mode after the handshake
// and one frame, and USB mode after a stray byte that is no head. Each
// wake-up of a thread ends in a context switch, so switches a second is the
// rate of wake-ups; at rest it should be 0.
#include <array>
#include <thread>

#include "families.hpp"
#include "proc_sample.hpp"

namespace linebench {
namespace {

constexpr auto kWindow = std::chrono::seconds(20);

struct Resting {
    const char* figure;
    std::vector<std::string> args;
    bool frame_first;   // one forwarded frame before the rest
    bool stray_after;   // one stray byte after the frame
    std::unique_ptr<OnLine> agent;
    ProcSample before;
};

}  // namespace

void measure_idle(Rig& rig, const Scale& scale, Report& report) {
    std::array<Resting, 3> states = {
        Resting{"idle, plain mode", {}, false, false, nullptr, {}},
        Resting{"idle, USB mode after the handshake", {"-m", "1"}, true, false, nullptr, {}},
        Resting{"idle, USB mode after a stray byte", {"-m", "1"}, true, true, nullptr, {}},
    };
    const std::array<uint8_t, 4> body = {0x01, 0x02, 0x03, 0x04};
    Bytes frame = pc_frame(kForwardedCmd, body);
    for (Resting& s : states) {
        std::string why;
        s.agent = rig.start_agent(s.args, &why);
        if (!s.agent) {
            report.note(std::string(s.figure) + ": " + why);
            return;
        }
        if (s.frame_first && !s.agent->pc->exchange(frame)) {
            report.note(std::string(s.figure) + ": the frame got no answer");
            return;
        }
        if (s.stray_after) s.agent->pc->send_stray_byte();
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));  // let the start settle
    for (Resting& s : states) s.before = sample_process(s.agent->program->pid());
    auto window = std::chrono::duration_cast<std::chrono::milliseconds>(kWindow * scale.factor);
    std::this_thread::sleep_for(window);
    double secs = std::chrono::duration<double>(window).count();
    for (Resting& s : states) {
        Activity a = activity_between(s.before, sample_process(s.agent->program->pid()));
        report.add({std::string(s.figure) + ", " + fixed(secs, 0) + " s",
                    fixed(static_cast<double>(a.switches) / secs, 1) + " wake-ups/s, " + fixed(a.cpu_ms, 0) +
                        " ms CPU",
                    "0 wake-ups/s", "", "0"});
        Rig::stop(*s.agent);
    }
}

}  // namespace linebench
