// The two indications by which wfmgr sets the agent's base directories and
// its RF table list, as the verbose log shows what the agent took.
#include <cstring>
#include <string>

#include "phone_test.hpp"

namespace e2e {
namespace {

using sandbox::Bytes;

// A header for wfmgr: total_len, wf_id 7, both reserved all ones, msg_id, body_len.
Bytes header(uint32_t total_len, uint32_t msg_id) {
    Bytes h(20, 0);
    auto put = [&h](size_t off, uint32_t v) {
        for (int i = 0; i < 4; ++i) h[off + i] = static_cast<uint8_t>(v >> (8 * i));
    };
    put(0, total_len);
    put(4, 7);
    put(8, 0xFFFFFFFF);
    put(12, msg_id);
    put(16, total_len - 20);
    return h;
}

// Relate info indication of 540 bytes with amt_file_path at 220 and
// rf_code_file_path at 380.
Bytes relate_info(const std::string& amt_path, const std::string& rf_path) {
    Bytes m = header(540, 0x4000d);
    m.resize(540, 0);
    memcpy(m.data() + 220, amt_path.data(), std::min<size_t>(amt_path.size(), 540 - 220));
    memcpy(m.data() + 380, rf_path.data(), std::min<size_t>(rf_path.size(), 540 - 380));
    return m;
}

class WfmgrIndications : public PhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        if (IsSkipped()) return;
        sandbox::PhoneSetup setup;
        setup.config = "amt_relate_path = /amt/\noutput_more_log = 1\n";
        make_phone(setup);
        daemon_ = launch_running();
        ASSERT_NE(daemon_, nullptr);
    }
    sandbox::Daemon* daemon_ = nullptr;
};

// A path that fills its field without a terminator is cut to the 159
// characters a directory holds and still taken, both paths alike.
TEST_F(WfmgrIndications, PathThatFillsItsFieldIsCutTo159CharactersAndStillTaken) {
    const std::string a159(159, 'a');
    const std::string b159(159, 'b');
    ASSERT_TRUE(wfmgr_->send(relate_info(std::string(160, 'a'), std::string(160, 'b'))));
    EXPECT_TRUE(daemon_->wait_for_log("config_file_st.m_amt_relate_path:" + a159 + ", .", kWait));
    EXPECT_TRUE(daemon_->wait_for_log("rf_code_file_path:" + b159 + ", amt_file_path:" + a159 + ", .", kWait));
    EXPECT_EQ(daemon_->count_log("without terminator: cut to 159 characters."), 2u);
    // An empty amt_file_path keeps the directory in force.
    ASSERT_TRUE(wfmgr_->send(relate_info("", "/rf2/")));
    EXPECT_TRUE(daemon_->wait_for_log_count("config_file_st.m_amt_relate_path:" + a159 + ", .", 2, kWait));
}

// Whole rows only count (unit-tested with the list itself).
TEST_F(WfmgrIndications, RfTableListTakesAtMostThirtyRowsAndTheWholeRowsThatCame) {
    Bytes m = header(24 + 31 * 72, 0x4000e);
    m.resize(24 + 31 * 72, 0);
    m[20] = static_cast<uint8_t>((31 * 72) & 0xFF);
    m[21] = static_cast<uint8_t>((31 * 72) >> 8);
    ASSERT_TRUE(wfmgr_->send(m));
    EXPECT_TRUE(daemon_->wait_for_log("len:2160, g_wfmgr_rftab_info_count:30.", kWait));

    // len 216 (three rows) in a message that carries one row and 28 bytes of
    // a second: the one whole row is taken.
    Bytes lying = header(24 + 100, 0x4000e);
    lying.resize(24 + 100, 0);
    lying[20] = 0xD8;
    ASSERT_TRUE(wfmgr_->send(lying));
    EXPECT_TRUE(daemon_->wait_for_log("res info indication len:216 but the message holds 100 bytes of rows: the 1 "
                                      "whole rows that came are taken.",
                                      kWait));
    EXPECT_TRUE(daemon_->wait_for_log("len:72, g_wfmgr_rftab_info_count:1.", kWait));
}

// A message the agent has no use for is only logged: the next indication is
// still read from its own start.
TEST_F(WfmgrIndications, UnknownMessageIsPassedOverAndTheNextOneIsTaken) {
    Bytes unknown = header(28, 0x40063);
    unknown.resize(28, 0x5A);
    ASSERT_TRUE(wfmgr_->send(unknown));
    ASSERT_TRUE(wfmgr_->send(relate_info("/amt/next/", "/amt/next/rf/")));
    EXPECT_TRUE(daemon_->wait_for_log("treat_default_msg type_id:0, cmd_id:0x40063, wf_id:7.", kWait));
    EXPECT_TRUE(daemon_->wait_for_log("config_file_st.m_amt_relate_path:/amt/next/, .", kWait));
}

}  // namespace
}  // namespace e2e
