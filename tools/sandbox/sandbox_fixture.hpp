// A station's fixture of phones: each phone in a network of its own (so that
// every agent has its own port 8030), with its own wfmgr-sim and its agent
// in USB mode, the handshake already answered, and its PC line relayed to a
// fresh pseudo-terminal whose slave a station opens by path, as it would
// open a USB serial adapter.
//
// Threads: a keeper thread per phone enters a new network namespace (network
// namespaces belong to threads), starts wfmgr-sim and the agent from there
// (both die with that thread) and lives until the phone is stopped, then
// stops them the ordinary way. A relay thread copies bytes both ways between
// the phone's line and the station's pseudo-terminal; an eventfd ends it,
// and on the pull command it hangs up the line itself and ends.
// The state the test reads (device, phone, daemons) is set before start()
// returns and not changed until the destructor.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "process/unique_fd.hpp"
#include "sandbox_daemon.hpp"
#include "sandbox_phone.hpp"

namespace sandbox {

struct FixtureSetup {
    PhoneSetup phone;
    // Files written into the phone before anything starts: phone path, content.
    std::vector<std::pair<std::string, std::string>> files;
    std::string agent;       // path of ovta-amt
    std::string wfmgr_sim;   // path of wfmgr-sim
    std::vector<std::string> wfmgr_args;
    DaemonOptions agent_options;
    // The station answers the agent's handshake offers itself: the relay
    // starts as soon as the agent has started, and the offers reach the
    // station's line. Otherwise the fixture answers and the line carries
    // frames only.
    bool station_handshake = false;
    // When the station sends a frame with this command, the relay hangs up
    // the station's line at once (the frame never reaches the phone), as a
    // phone pulled out in the middle of a plan, and adds 1 to the eventfd
    // `pulled_event` when there is one.
    std::optional<uint32_t> pull_on_command;
    int pulled_event = -1;
    // The agent's and wfmgr-sim's logs are written into the phone's tree,
    // agent.log and wfmgr.log, once they have ended.
    bool keep_logs = false;
};

class FixturePhone {
public:
    // Lays the phone out and starts it; null, with the reason in `why`, when
    // it did not come up (wfmgr-sim listening, the agent started, the
    // handshake answered) within 30 seconds.
    static std::unique_ptr<FixturePhone> start(const FixtureSetup& setup, std::string* why);
    // Hangs up the line, stops the agent and wfmgr-sim (SIGTERM) and removes
    // the phone (its tree stays when the setup named it).
    ~FixturePhone();
    FixturePhone(const FixturePhone&) = delete;
    FixturePhone& operator=(const FixturePhone&) = delete;

    // The station's end: the slave of the relay's pseudo-terminal.
    const std::string& device() const { return device_; }
    Phone& phone() { return *phone_; }
    Daemon& agent() { return *agent_; }
    Daemon& wfmgr() { return *wfmgr_; }

    // The agent is killed (SIGKILL) when the station sends a frame with this
    // command, before the frame reaches it: the phone stops answering in the
    // middle of a plan, at a known step.
    void kill_agent_on_command(uint32_t cmd) { kill_on_cmd_ = static_cast<int64_t>(cmd); }
    // The agent's exit code once it has ended (128 + 9 after the kill).
    std::optional<int> agent_exit() const { return agent_exit_; }

    // Hangs up the station's line as an unplugged cable does: the relay stops
    // and the pseudo-terminal's master closes, so that every opener of
    // device() sees the hang-up and the device node goes. The phone's
    // programs still run. Once only; any thread but the relay.
    void hang_up();
    // Whether the relay hung up the line on the pull command.
    bool pulled() const { return pulled_.load(); }

private:
    FixturePhone() = default;
    void keep(const FixtureSetup& setup);
    bool bring_up(const FixtureSetup& setup, std::string* why);
    void relay();
    // Whether the station's bytes hold the head of a frame with the command
    // to kill on, or the one to pull on; keeps the tail of the stream
    // between reads.
    void look_for_commands(const uint8_t* data, size_t n, bool* kill, bool* pull);

    std::unique_ptr<Phone> phone_;
    std::unique_ptr<Daemon> wfmgr_;
    std::unique_ptr<Daemon> agent_;
    std::string device_;
    UniqueFd relay_master_;
    UniqueFd relay_slave_;  // kept open: no hang-up while no station has the line
    UniqueFd relay_stop_;
    std::atomic<int64_t> kill_on_cmd_{-1};
    int64_t pull_on_cmd_ = -1;  // set before the relay starts
    int pulled_event_ = -1;
    std::atomic<bool> pulled_{false};
    std::vector<uint8_t> pc_tail_;  // relay thread only
    std::optional<int> agent_exit_;  // set by the keeper after the relay ended

    std::mutex mu_;
    std::condition_variable cv_;
    bool up_done_ = false;   // guarded by mu_
    bool up_ok_ = false;     // guarded by mu_
    std::string up_why_;     // guarded by mu_
    bool stop_ = false;      // guarded by mu_
    std::thread keeper_;
    std::thread relay_;
};

}  // namespace sandbox
