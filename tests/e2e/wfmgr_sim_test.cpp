// wfmgr-sim as the demonstration runs it: the real program in the phone,
// with the test playing the agent on its TCP connection. Expected requests
// are written out by hand from the message layouts.
#include <arpa/inet.h>
#include <csignal>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "phone_test.hpp"
#include "sandbox_io.hpp"

namespace e2e {
namespace {

using sandbox::Bytes;

// The requests of --info-read 1 0 16, --amt-read 4 8 and
// --confirm-modify 1 0 0102 under wf_id 7.
const char kInfoRead[] =
    "20 00 00 00 07 00 00 00 FF FF FF FF 07 00 04 00 0C 00 00 00 01 00 00 00 00 00 00 00 10 00 00 00";
const char kAmtRead[] =
    "24 00 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 10 00 00 00 00 00 00 00 04 00 00 00 08 00 00 00 99 00 00 00";
const char kConfirmModify[] =
    "26 00 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 12 00 00 00 01 00 00 00 00 00 00 00 06 00 00 00 9B 00 00 00 "
    "01 02";

class WfmgrSim : public PhoneTest {
protected:
    void TearDown() override {
        if (conn_ >= 0) close(conn_);
        PhoneTest::TearDown();
    }

    sandbox::Daemon* start(const std::vector<std::string>& args) {
        if (!phone_ && !make_phone()) return nullptr;
        std::string why;
        auto sim = sandbox::Daemon::start(*phone_, OVTA_BINARY_DIR "/wfmgr-sim", args, &why);
        EXPECT_NE(sim, nullptr) << why;
        if (!sim) return nullptr;
        daemons_.push_back(std::move(sim));
        return daemons_.back().get();
    }

    // Connects as the agent does, once wfmgr-sim listens.
    void connect_as_agent(sandbox::Daemon* sim) {
        ASSERT_TRUE(sim->wait_for_log("wfmgr-sim: listening on 0.0.0.0:8030", kWait));
        conn_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(8030);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(conn_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    }

    // The next whole message: total_len, then the rest.
    std::string next_message() {
        auto head = sandbox::read_exact(conn_, 4, kWait);
        if (!head) return "nothing";
        const uint32_t total = (*head)[0] | (*head)[1] << 8 | (*head)[2] << 16 | (*head)[3] << 24;
        auto rest = sandbox::read_exact(conn_, total - 4, kWait);
        if (!rest) return "cut";
        head->insert(head->end(), rest->begin(), rest->end());
        return tools::to_hex(*head);
    }

    int conn_ = -1;
};

TEST_F(WfmgrSim, FileRequestsFollowTheIndicationsAndTheConfirmIsPrintedDecoded) {
    sandbox::Daemon* sim = start({"--wf-id", "7", "--rf-path", "/amt/rf/", "--rftab", "1=rf_table_1.bin", "--info-read",
                                  "1", "0", "16", "--amt-read", "4", "8", "--confirm-modify", "1", "0", "0102", "--out",
                                  "/amt/data.bin"});
    ASSERT_NE(sim, nullptr);
    connect_as_agent(sim);
    EXPECT_EQ(next_message().substr(12 * 3, 11), "0D 00 04 00");  // relate info indication
    EXPECT_EQ(next_message().substr(12 * 3, 11), "0E 00 04 00");  // res info indication
    EXPECT_EQ(next_message(), kInfoRead);
    EXPECT_EQ(next_message(), kAmtRead);
    EXPECT_EQ(next_message(), kConfirmModify);

    // The agent's info read confirm: 3 bytes read, total_len 39 grown to 42.
    ASSERT_TRUE(sandbox::write_all(conn_,
                                   hex("2A 00 00 00 07 00 00 00 FF FF FF FF 08 00 04 00 13 00 00 00 01 00 00 00 00 00 "
                                       "00 00 10 00 00 00 03 00 00 00 41 42 43 00 00 00"),
                                   kWait));
    EXPECT_TRUE(sim->wait_for_log("recv info read confirm 0x40008 total_len 42 wf_id 0x7 body_len 19 table_type 1 "
                                  "offset 0 len 16 readed_len 3 data 41 42 43",
                                  kWait));
    EXPECT_TRUE(sim->wait_for_log("kept 3 bytes in", kWait));
    EXPECT_EQ(phone_->read_file("/amt/data.bin"), "ABC");

    ASSERT_TRUE(sim->signal(SIGTERM));
    EXPECT_EQ(sim->wait_exit(kWait), 0);
}

TEST_F(WfmgrSim, HeldRequestsWaitForSigusr1AndLoadConfirmCarriesTheOptions) {
    sandbox::Daemon* sim = start({"--wf-id", "9", "--load-error", "3", "--hold-requests", "--amt-read", "0", "2"});
    ASSERT_NE(sim, nullptr);
    connect_as_agent(sim);
    next_message();
    next_message();
    // A load request for "demo" in mode 0.
    Bytes load = hex("58 00 00 00 FF FF FF FF FF FF FF FF 01 00 04 00 44 00 00 00 64 65 6D 6F");
    load.resize(88);
    ASSERT_TRUE(sandbox::write_all(conn_, load, kWait));
    EXPECT_EQ(next_message(), "1C 00 00 00 09 00 00 00 FF FF FF FF 02 00 04 00 08 00 00 00 09 00 00 00 03 00 00 00");
    EXPECT_TRUE(sandbox::quiet_for(conn_, 300ms));
    // Each SIGUSR1 makes the requests again.
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(sim->signal(SIGUSR1));
        EXPECT_EQ(next_message(),
                  "24 00 00 00 09 00 00 00 FF FF FF FF 04 00 04 00 10 00 00 00 00 00 00 00 00 00 00 00 02 00 00 00 "
                  "99 00 00 00");
    }
}

TEST_F(WfmgrSim, BadRequestArgumentsAreRefusedAtStart) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"--info-read", "1", "0"},
                                               {"--info-read", "1", "0", "40922"},
                                               {"--modify", "1", "0", "0g"},
                                               {"--confirm-modify", "1", "0", "@/no/such/file"},
                                               {"--amt-read", "x", "1"}}) {
        sandbox::Daemon* sim = start(args);
        ASSERT_NE(sim, nullptr);
        EXPECT_EQ(sim->wait_exit(kWait), 2) << args[0];
    }
}

}  // namespace
}  // namespace e2e
