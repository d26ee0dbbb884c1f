// The benchmark's rig, built on the phone sandbox: phones with their
// pseudo-terminals, the agent in USB mode on one, socat relaying another
// phone's line, the raw echo on a third, and the TCP echo peers, all in the
// benchmark's private network. Owned and driven by the main thread (every
// process is started from it, as bubblewrap dies with the thread that
// started it).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "pc_side.hpp"
#include "sandbox.hpp"

namespace linebench {

constexpr uint16_t kWfmgrPort = 8030;    // the agent's wfmgr, answering in the wfmgr format
constexpr uint16_t kPcEchoPort = 8031;   // socat's far end, answering PC frames
constexpr uint16_t kRfTableType = 1;
constexpr const char* kRfTableFile = "bench_table.bin";
constexpr uint32_t kRfTableBytes = 4u << 20;
constexpr const char* kVersion = "OVTA-BENCH-1.0";
constexpr uint32_t kForwardedCmd = 100;

// A program on a phone with the PC's end of the phone's line.
struct OnLine {
    std::unique_ptr<sandbox::Phone> phone;
    std::unique_ptr<sandbox::Daemon> program;
    std::unique_ptr<PcSide> pc;
    std::string note;  // what the PC saw when it opened the line
};

class Rig {
public:
    // Enters the private network (call it while the process has one thread)
    // and starts the TCP echo peers; null with the reason in `why`.
    static std::unique_ptr<Rig> create(std::string* why);
    ~Rig();

    // The agent on a phone of its own, with `args`; in USB mode its PC line is
    // opened (stray byte, handshake answered, line drained). Null on failure.
    std::unique_ptr<OnLine> start_agent(const std::vector<std::string>& args, std::string* why);
    // socat relaying a fresh phone's line to the PC-format echo.
    std::unique_ptr<OnLine> start_socat(std::string* why);
    // The raw echo on a fresh phone's line.
    std::unique_ptr<OnLine> start_raw_echo(std::string* why);

    // Ends a program the ordinary way (SIGTERM), waiting for its exit.
    static void stop(OnLine& p);

private:
    Rig() = default;
    std::unique_ptr<sandbox::Phone> make_phone(bool serial_port, std::string* why);
    std::unique_ptr<OnLine> start_on_line(const std::string& program, const std::vector<std::string>& args,
                                          std::string* why);

    std::unique_ptr<sandbox::Phone> peer_phone_;  // where the TCP echo peers run
    std::unique_ptr<sandbox::Daemon> wfmgr_echo_;
    std::unique_ptr<sandbox::Daemon> pc_echo_;
};

}  // namespace linebench
