// ovta-line-bench: the agent's byte paths against the line itself.
//
//   ovta-line-bench [--quick] [--only round-trip|local|bulk|rf|endurance|idle]
//
// Runs the agent in its sandbox in USB mode on a pseudo-terminal, with
// wfmgr's side played by a TCP echo that answers every forwarded request at
// once, and takes each figure side by side with its reference in the same
// run: socat relaying another phone's line to the same echo, and a raw echo
// sitting on a third phone's line where the agent would sit. Prints one table
// of ratios. --quick runs a tenth of everything, for a look; --only runs one
// family.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "families.hpp"

namespace {

std::string load_average() {
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

}  // namespace

int main(int argc, char** argv) {
    linebench::Scale scale;
    std::string only;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0) {
            scale.factor = 0.1;
        } else if (strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
            only = argv[++i];
        } else {
            fprintf(stderr, "usage: %s [--quick] [--only round-trip|local|bulk|rf|endurance|idle]\n", argv[0]);
            return 2;
        }
    }
    auto wanted = [&only](const char* family) {
        if (!only.empty() && only != family) return false;
        std::cerr << family << "...\n";
        return true;
    };
    std::string why;
    auto rig = linebench::Rig::create(&why);
    if (!rig) {
        std::cerr << "no rig: " << why << "\n";
        return 1;
    }
    std::string load_before = load_average();
    auto agent = rig->start_agent({"-m", "1"}, &why);
    if (!agent) {
        std::cerr << "agent: " << why << "\n";
        return 1;
    }
    auto socat = rig->start_socat(&why);
    if (!socat) {
        std::cerr << "socat: " << why << "\n";
        return 1;
    }
    auto raw = rig->start_raw_echo(&why);
    if (!raw) {
        std::cerr << "raw echo: " << why << "\n";
        return 1;
    }
    linebench::Lines lines{agent.get(), socat.get(), raw.get()};
    linebench::Report report;
    report.note("agent's PC line: " + agent->note);

    if (wanted("round-trip")) linebench::measure_round_trips(lines, scale, report);
    if (wanted("local")) linebench::measure_local_command(lines, scale, report);
    if (wanted("bulk")) linebench::measure_bulk(lines, scale, report);
    if (wanted("rf")) linebench::measure_rf_reads(lines, scale, report);
    if (wanted("endurance")) linebench::measure_endurance(lines, scale, report);
    if (wanted("idle")) linebench::measure_idle(*rig, scale, report);

    report.note("load average before: " + load_before + "; after: " + load_average());
    for (auto* p : {agent.get(), socat.get(), raw.get()}) linebench::Rig::stop(*p);
    report.print(std::cout);
    return 0;
}
