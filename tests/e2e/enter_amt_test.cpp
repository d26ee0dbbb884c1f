// PC command 17: the load request to wfmgr and its confirm, which answers the
// PC and sets wf_id; and mode 4, in which the agent moves its AMT directory
// into the directory of the wf_name and answers by itself. Where the AMT
// directory points is seen by reading amt.bin through wfmgr's file read.
#include <string>

#include "rf_phone_test.hpp"

namespace e2e {
namespace {

const Bytes kRsp18Done = hex("AA BB CC DD 10 00 00 00 02 00 00 00 12 00 00 00 00 00 00 00 DA BD 91 C9");
// result_code 1: the path could not be rewritten and stays.
const Bytes kRsp18PathKept = hex("AA BB CC DD 10 00 00 00 02 00 00 00 12 00 00 00 01 00 00 00 EC 4B 1C 51");
const Bytes kRsp18Failed = hex("AA BB CC DD 10 00 00 00 02 00 00 00 12 00 00 00 0A 00 00 00 D0 9D 01 58");

// The load request for a name: total_len 88, wf_id all ones, body_len 68,
// the name in 64 bytes, the mode's low byte at 84.
Bytes load_request(const std::string& name, uint8_t mode) {
    Bytes name_field(name.begin(), name.end());
    name_field.resize(64, 0);
    return concat({hex("58 00 00 00 FF FF FF FF FF FF FF FF 01 00 04 00 44 00 00 00"), name_field,
                   Bytes{mode, 0, 0, 0}});
}

// The request of kFrame100, forwarded with the wf_id in force.
Bytes request100(const std::string& wf_id) {
    return hex("20 00 00 00 " + wf_id + " FF FF FF FF 03 00 04 00 0C 00 00 00 64 00 00 00 01 02 03 04 EB BD B0 AD");
}

// wfmgr's file read of 3 bytes of amt.bin, and its confirm with those bytes.
const Bytes kReadAmtBin = hex("24 00 00 00 2A 00 00 00 FF FF FF FF 04 00 04 00 10 00 00 00 "
                              "00 00 00 00 00 00 00 00 03 00 00 00 99 00 00 00");
Bytes amt_bin_confirm(const std::string& three_bytes) {
    return hex("2A 00 00 00 2A 00 00 00 FF FF FF FF 03 00 04 00 13 00 00 00 "
               "9A 00 00 00 00 00 00 00 03 00 00 00 03 00 00 00 " + three_bytes + " 00 00 00");
}

using EnterAmt = RfPhoneTest;

TEST_F(EnterAmt, LoadRequestCarriesNameAndModeAndEachConfirmAnswersWithResponse18) {
    start_agent();
    ASSERT_FALSE(HasFatalFailure());
    pc_sends(hex("AA BB CC DD 14 00 00 00 02 00 00 00 11 00 00 00 01 00 00 00 77 66 31 00 29 BF 2A 86"));
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(load_request("wf1", 1));
    expect_pc_quiet();  // response 18 waits for the confirm
    // The body's wf_id 0x1234 counts, not the header's 0x99.
    wfmgr_sends(hex("1C 00 00 00 99 00 00 00 FF FF FF FF 02 00 04 00 08 00 00 00 34 12 00 00 00 00 00 00"));
    expect_pc_gets(kRsp18Done);
    pc_sends(kFrame100);
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(request100("34 12 00 00"));

    // Each confirm answers, and only a good one replaces the wf_id.
    wfmgr_sends(hex("1C 00 00 00 05 00 00 00 FF FF FF FF 02 00 04 00 08 00 00 00 05 00 00 00 00 00 00 00"));
    expect_pc_gets(kRsp18Done);
    // error_cause 3 answers 10, not 3.
    wfmgr_sends(hex("1C 00 00 00 09 00 00 00 FF FF FF FF 02 00 04 00 08 00 00 00 09 00 00 00 03 00 00 00"));
    expect_pc_gets(kRsp18Failed);
    // A confirm that ends before its error_cause cannot say the load was done.
    wfmgr_sends(hex("18 00 00 00 07 00 00 00 FF FF FF FF 02 00 04 00 04 00 00 00 07 00 00 00"));
    expect_pc_gets(kRsp18Failed);
    EXPECT_TRUE(daemon_->wait_for_log("load_cnf_msg message of 24 bytes holds no wf_id and error_cause", kWait));
    pc_sends(kFrame100);
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(request100("05 00 00 00"));
}

TEST_F(EnterAmt, Mode4MovesTheAmtDirectoryIntoTheWfNameAndAnswersAtOnce) {
    start_agent("/amt/a/b/c/d/");
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(phone_->write_file("/amt/a/b/w/amt.bin", "WWW"));
    ASSERT_TRUE(phone_->write_file("/amt/a/b/v/amt.bin", "VVV"));
    // amt_mode 0x104: only the low byte counts.
    pc_sends(hex("AA BB CC DD 12 00 00 00 02 00 00 00 11 00 00 00 04 01 00 00 77 00 51 D8 E3 96"));
    expect_pc_gets(concat({kPreResponse, kRsp18Done}));
    expect_wfmgr_quiet();
    wfmgr_sends(kReadAmtBin);
    expect_wfmgr_gets(amt_bin_confirm("57 57 57"));
    // A second name replaces the first at the same level.
    pc_sends(hex("AA BB CC DD 12 00 00 00 02 00 00 00 11 00 00 00 04 00 00 00 76 00 B8 87 90 2C"));
    expect_pc_gets(concat({kPreResponse, kRsp18Done}));
    wfmgr_sends(kReadAmtBin);
    expect_wfmgr_gets(amt_bin_confirm("56 56 56"));
    EXPECT_TRUE(daemon_->wait_for_log("m_amt_relate_path is (/amt/a/b/v/).", kWait));
    // A name that would lead out of /amt/a/b/ is answered with 1 and moves nothing.
    pc_sends(hex("AA BB CC DD 13 00 00 00 02 00 00 00 11 00 00 00 04 00 00 00 2E 2E 00 F4 9C 05 25"));
    expect_pc_gets(concat({kPreResponse, kRsp18PathKept}));
    pc_sends(hex("AA BB CC DD 1D 00 00 00 02 00 00 00 11 00 00 00 04 00 00 00 "
                 "2E 2E 2F 2E 2E 2F 73 79 73 74 65 6D 00 99 EF 9A 57"));
    expect_pc_gets(concat({kPreResponse, kRsp18PathKept}));
    wfmgr_sends(kReadAmtBin);
    expect_wfmgr_gets(amt_bin_confirm("56 56 56"));
    EXPECT_TRUE(daemon_->wait_for_log("wf_name (../../system) is not one directory of its own", kWait));
}

TEST_F(EnterAmt, Mode4WithoutAFourthSlashAnswers1AndKeepsTheDirectory) {
    start_agent("/amt/x/");
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(phone_->write_file("/amt/x/amt.bin", "XXX"));
    pc_sends(hex("AA BB CC DD 12 00 00 00 02 00 00 00 11 00 00 00 04 00 00 00 77 00 27 F5 C1 E5"));
    expect_pc_gets(concat({kPreResponse, kRsp18PathKept}));
    EXPECT_TRUE(daemon_->wait_for_log("count is not 4", kWait));
    wfmgr_sends(kReadAmtBin);
    expect_wfmgr_gets(amt_bin_confirm("58 58 58"));
}

TEST_F(EnterAmt, EmptyNameGetsOnlyThePreResponseInEveryMode) {
    start_agent();
    ASSERT_FALSE(HasFatalFailure());
    // The name is its terminator alone (a frame without it would put its CRC there).
    pc_sends(hex("AA BB CC DD 11 00 00 00 02 00 00 00 11 00 00 00 01 00 00 00 00 6C BC E4 AB"));
    expect_pc_gets(kPreResponse);
    pc_sends(hex("AA BB CC DD 11 00 00 00 02 00 00 00 11 00 00 00 04 00 00 00 00 E2 1B FA 65"));
    expect_pc_gets(kPreResponse);
    expect_pc_quiet();
    expect_wfmgr_quiet();
    EXPECT_TRUE(daemon_->wait_for_log_count("send_amt_load_req_msg Invalid parameter .", 2, kWait));
    EXPECT_TRUE(daemon_->wait_for_log_count("send_amt_load_req_msg failure error:", 2, kWait));
    EXPECT_EQ(daemon_->count_log("m_amt_relate_path is ("), 0u);
}

TEST_F(EnterAmt, NameLongerThanTheLoadRequestsFieldIsCutToItsSixtyFourBytes) {
    start_agent();
    ASSERT_FALSE(HasFatalFailure());
    std::string a70_hex;  // 70 times 'A'
    for (int i = 0; i < 70; ++i) a70_hex += "41 ";
    pc_sends(hex("AA BB CC DD 57 00 00 00 02 00 00 00 11 00 00 00 01 00 00 00 " + a70_hex + "00 58 D1 53 52"));
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(load_request(std::string(64, 'A'), 1));
    pc_sends(hex("AA BB CC DD 57 00 00 00 02 00 00 00 11 00 00 00 04 00 00 00 " + a70_hex + "00 90 27 9D 95"));
    expect_pc_gets(concat({kPreResponse, kRsp18Done}));
    EXPECT_TRUE(daemon_->wait_for_log("m_amt_relate_path is (/amt/a/b/" + std::string(64, 'A') + "/).", kWait));
    EXPECT_TRUE(daemon_->wait_for_log_count("wf_name longer than 64 characters, cut to the 64 of the load request.", 2,
                                            kWait));
}

}  // namespace
}  // namespace e2e
