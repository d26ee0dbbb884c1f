// Base fixture of the end-to-end tests: one phone per test, with the build and
// source trees visible inside, "wfmgr" on demand, and the daemons started on it.
// When a test fails, the log of each daemon is printed.
#pragma once

#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "sandbox.hpp"

namespace e2e {

using namespace std::chrono_literals;

// Generous bound for anything the daemon does in response to the test.
constexpr auto kWait = 10s;

bool network_ready();
const std::string& network_problem();

// The message of a log line: the text after "D/OVTA_AMT(pid): ".
std::string message_of(const std::string& line);
// The messages of all lines of `d`, in order.
std::vector<std::string> messages(const sandbox::Daemon& d);

class PhoneTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Builds the phone; the build and source trees are added to `setup`.
    sandbox::Phone* make_phone(sandbox::PhoneSetup setup = {});
    sandbox::WfmgrPeer* listen_wfmgr();
    // Starts the daemon on the phone (made with defaults if there is none yet).
    sandbox::Daemon* launch(const std::vector<std::string>& args = {});
    // Listens as wfmgr, launches, accepts the daemon's connection and waits
    // for "handle_start success"; null after a failed expectation.
    sandbox::Daemon* launch_running(const std::vector<std::string>& args = {});

    std::unique_ptr<sandbox::Phone> phone_;
    std::unique_ptr<sandbox::WfmgrPeer> wfmgr_;
    std::vector<std::unique_ptr<sandbox::Daemon>> daemons_;  // last: they go first
};

}  // namespace e2e
