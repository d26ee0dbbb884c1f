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
#include "pc/lib/hex_text.hpp"

namespace e2e {

using namespace std::chrono_literals;

// Literal bytes written as hex text, "AA BB 01"; bad text fails the test.
inline sandbox::Bytes hex(const std::string& text) {
    auto b = tools::parse_hex(text);
    EXPECT_TRUE(b.has_value()) << "bad hex in the test: " << text;
    return b.value_or(sandbox::Bytes{});
}

inline sandbox::Bytes concat(std::initializer_list<sandbox::Bytes> parts) {
    sandbox::Bytes out;
    for (const sandbox::Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Generous bound for anything the daemon does in response to the test.
constexpr auto kWait = 10s;

// The property by which the agent tells the phone whether to enter AMT mode.
constexpr const char* kVerdict = "sys.tq.amt.failure.handshake";
// What the agent offers the PC once a second in USB mode until it answers.
inline const sandbox::Bytes kHandshakeOffer = {0xAA, 0xBB, 0xCC, 0xDD, 0x7F};
// The acknowledgement of every frame from the PC.
inline const sandbox::Bytes kPreResponse = hex("AA BB CC DD 08 00 00 00 02 02 00 00 76 4A EE 1D");
// Command 100 with body 01 02 03 04 and its CRC: a command the agent forwards.
inline const sandbox::Bytes kFrame100 = hex("AA BB CC DD 10 00 00 00 02 00 00 00 64 00 00 00 01 02 03 04 EB BD B0 AD");

bool network_ready();
const std::string& network_problem();

// The message of a log line: the text after "D/OVTA_AMT(pid): ".
std::string message_of(const std::string& line);
// The messages of all lines of `d`, in order.
std::vector<std::string> messages(const sandbox::Daemon& d);
// Expects messages of `d` that are exactly `lines`, in this order (the first
// of each counts).
void expect_in_order(const sandbox::Daemon& d, const std::vector<std::string>& lines);

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
    // The same in USB mode (-m 1, then `extra_args`) with the PC's end of the
    // serial line in pc_, ready for frames: the handshake is done (see
    // complete_handshake), so the line carries frames only.
    sandbox::Daemon* launch_with_pc(const std::vector<std::string>& extra_args = {});
    // Plays the PC's part of the handshake on pc_: waits for the offer
    // AA BB CC DD 7F, answers with the one byte 00, waits for "handshake
    // success." and takes off the line any offer sent before the success.
    // False after a failed expectation.
    bool complete_handshake(sandbox::Daemon* d);

    // The two lines, pc_ and wfmgr_, seen from the outside.
    void pc_sends(const sandbox::Bytes& b) { ASSERT_TRUE(pc_->send(b)); }
    void expect_pc_gets(const sandbox::Bytes& want) {
        auto got = pc_->read_exact(want.size(), kWait);
        ASSERT_TRUE(got.has_value()) << "the PC got fewer than " << want.size() << " bytes";
        EXPECT_EQ(*got, want);
    }
    void expect_pc_quiet() { EXPECT_TRUE(pc_->quiet_for(300ms)); }
    void wfmgr_sends(const sandbox::Bytes& b) { ASSERT_TRUE(wfmgr_->send(b)); }
    void expect_wfmgr_gets(const sandbox::Bytes& want) {
        auto got = wfmgr_->read_message(kWait);
        ASSERT_TRUE(got.has_value()) << "wfmgr got no message";
        EXPECT_EQ(*got, want);
    }
    void expect_wfmgr_quiet() { EXPECT_TRUE(wfmgr_->quiet_for(300ms)); }

    std::unique_ptr<sandbox::Phone> phone_;
    std::unique_ptr<sandbox::WfmgrPeer> wfmgr_;
    std::unique_ptr<sandbox::PcLine> pc_;
    std::vector<std::unique_ptr<sandbox::Daemon>> daemons_;  // last: they go first
};

}  // namespace e2e
