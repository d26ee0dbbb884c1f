// ovta-pc: the PC side of the serial link. It speaks every factory command
// that the agent answers itself, by name, and sends any other command frame
// with `send`. `ovta-pc --help` lists the commands with an example each.
//
// Each command writes one frame (an RF transfer one per slice), waits for the
// agent's pre-response and for the answer numbered cmd + 1, and prints the
// answer decoded on one line of standard output. Frames of other numbers that
// come meanwhile (answers that wfmgr sends for commands forwarded earlier)
// are shown but not taken for the answer. Bytes outside frames, such as the
// agent's USB handshake, are skipped.
//
// The exit status says how it went: see kExit* in ovta_pc/options.hpp and the
// usage text. The command line is read in ovta_pc/options.cpp, made into a
// request in ovta_pc/command.cpp and run in ovta_pc/session.cpp; here the line
// is opened and Ctrl-C is turned into the stop that ends the wait.
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "pc/os/line.hpp"
#include "pc/ovta_pc/command.hpp"
#include "pc/ovta_pc/options.hpp"
#include "pc/ovta_pc/session.hpp"

using namespace ovta_pc;

int main(int argc, char** argv) {
    std::optional<Options> opt = parse_options(argc, argv);
    if (!opt) return kExitUsage;
    if (opt->help) {
        fputs(usage_text(), stdout);
        return kExitAccepted;
    }
    Command command(*opt);
    if (!command.parse()) return kExitUsage;

    // A pattern (/dev/ttyACM*, COM*) stands for the one port it matches.
    if (pcos::is_line_pattern(opt->device)) {
        std::vector<std::string> ports = pcos::list_lines(opt->device);
        if (ports.size() != 1) {
            std::string names;
            for (const std::string& p : ports) names += " " + p;
            fail("%s matches %zu ports%s%s; --device names one", opt->device.c_str(), ports.size(),
                 ports.empty() ? "" : ":", names.c_str());
            return kExitUsage;
        }
        opt->device = ports.front();
    }
    std::string error;
    pcos::Line line = pcos::Line::open(opt->device, &error);
    if (!line.valid()) {
        fail("%s", error.c_str());
        return kExitUsage;
    }
    // What waits on the line is no answer to this command: earlier frames, or
    // the handshake that the agent offers until the PC first writes.
    line.discard_input();
    // Ctrl-C ends the wait for the answer; the program then says so and ends.
    pcos::Stop stop;
    const bool stoppable = pcos::raise_on_interrupt(stop);
    Session session(*opt, line, stoppable ? &stop : nullptr);
    return command.run(session);
}
