// wfmgr reads and writes factory files through the agent: 0x40007 and the 153
// form of 0x40004 read, 0x40005 and the 155 form write. Requests carry wf_id
// 0x2A, which every confirm echoes; requests and confirms are literal bytes.
#include <csignal>

#include "rf_phone_test.hpp"

namespace e2e {
namespace {

class RfFileService : public RfPhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        if (IsSkipped()) return;
        start_agent("/amt/a/b/c/d/");
    }
};

TEST_F(RfFileService, InfoReadConfirmCarriesTheBytesReadAndFollowsTheTotalLengthRule) {
    // 1 byte at 10: total_len 37 + 1 = 38.
    wfmgr_sends(hex("20 00 00 00 2A 00 00 00 FF FF FF FF 07 00 04 00 0C 00 00 00 07 00 00 00 0A 00 00 00 01 00 00 00"));
    expect_wfmgr_gets(hex("26 00 00 00 2A 00 00 00 FF FF FF FF 08 00 04 00 11 00 00 00 "
                          "07 00 00 00 0A 00 00 00 01 00 00 00 01 00 00 00 0A 00"));
    // 3 bytes at 250: total_len 39 + 3 = 42, the added bytes zero.
    wfmgr_sends(hex("20 00 00 00 2A 00 00 00 FF FF FF FF 07 00 04 00 0C 00 00 00 07 00 00 00 FA 00 00 00 03 00 00 00"));
    expect_wfmgr_gets(hex("2A 00 00 00 2A 00 00 00 FF FF FF FF 08 00 04 00 13 00 00 00 "
                          "07 00 00 00 FA 00 00 00 03 00 00 00 03 00 00 00 FA 00 01 00 00 00"));
    // 4 bytes: 40. 0 bytes: 36.
    wfmgr_sends(hex("20 00 00 00 2A 00 00 00 FF FF FF FF 07 00 04 00 0C 00 00 00 07 00 00 00 00 00 00 00 04 00 00 00"));
    expect_wfmgr_gets(hex("28 00 00 00 2A 00 00 00 FF FF FF FF 08 00 04 00 14 00 00 00 "
                          "07 00 00 00 00 00 00 00 04 00 00 00 04 00 00 00 00 01 02 03"));
    wfmgr_sends(hex("20 00 00 00 2A 00 00 00 FF FF FF FF 07 00 04 00 0C 00 00 00 07 00 00 00 00 00 00 00 00 00 00 00"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 08 00 04 00 10 00 00 00 "
                          "07 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
    // 1000 bytes of the 10 of small.bin: readed_len 10, total_len 46 + 2 = 48.
    wfmgr_sends(hex("20 00 00 00 2A 00 00 00 FF FF FF FF 07 00 04 00 0C 00 00 00 0B 00 00 00 00 00 00 00 E8 03 00 00"));
    expect_wfmgr_gets(hex("30 00 00 00 2A 00 00 00 FF FF FF FF 08 00 04 00 1A 00 00 00 "
                          "0B 00 00 00 00 00 00 00 E8 03 00 00 0A 00 00 00 00 01 02 03 04 05 06 07 08 09 00 00"));
}

// The file forms are read by their fixed offsets: body_len is not one of
// their fields, so a wfmgr that leaves it at 0, or at any other value, is
// served all the same; only the message that arrived bounds them.
TEST_F(RfFileService, FileFormsAreServedWhateverBodyLenSaysAndNothingReachesThePc) {
    ASSERT_TRUE(phone_->write_file("/amt/a/b/c/d/amt.bin", "ABCDEFG"));
    // table_type 0xDEAD, offset 2, len 3, the word 153; body_len 16, 0, 12, 100.
    const Bytes read_cnf = hex("2A 00 00 00 2A 00 00 00 FF FF FF FF 03 00 04 00 13 00 00 00 "
                               "9A 00 00 00 02 00 00 00 03 00 00 00 03 00 00 00 43 44 45 00 00 00");
    for (const char* body_len : {"10", "00", "0C", "64"}) {
        wfmgr_sends(hex(std::string("24 00 00 00 2A 00 00 00 FF FF FF FF 04 00 04 00 ") + body_len +
                        " 00 00 00 AD DE 00 00 02 00 00 00 03 00 00 00 99 00 00 00"));
        expect_wfmgr_gets(read_cnf);
    }
    // The modify form writes from its own word and confirms with the modify
    // confirm. len 8 from offset 32: the word 155 itself, then 01 02 03 04;
    // body_len 0.
    wfmgr_sends(hex("28 00 00 00 2A 00 00 00 FF FF FF FF 04 00 04 00 00 00 00 00 "
                    "07 00 00 00 00 00 00 00 08 00 00 00 9B 00 00 00 01 02 03 04"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 06 00 04 00 10 00 00 00 "
                          "07 00 00 00 00 00 00 00 08 00 00 00 08 00 00 00"));
    // len 12 with 8 bytes in the message, body_len 100: nothing written.
    wfmgr_sends(hex("28 00 00 00 2A 00 00 00 FF FF FF FF 04 00 04 00 64 00 00 00 "
                    "07 00 00 00 04 00 00 00 0C 00 00 00 9B 00 00 00 05 06 07 08"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 06 00 04 00 10 00 00 00 "
                          "07 00 00 00 04 00 00 00 0C 00 00 00 00 00 00 00"));
    EXPECT_EQ(slice(file("/amt/rf/cal.bin"), 0, 10), hex("9B 00 00 00 01 02 03 04 08 09"));
    expect_pc_quiet();
}

// A modify writes its slice, syncs and confirms the count written. A len past
// the message is refused though earlier bytes lie behind it.
TEST_F(RfFileService, ModifyWritesItsSliceButALenPastTheMessageIsRefused) {
    // Eight bytes into small.bin, then a request of len 8 that carries four:
    // behind it lie the last four of the first, which must not be written.
    wfmgr_sends(hex("28 00 00 00 2A 00 00 00 FF FF FF FF 05 00 04 00 14 00 00 00 "
                    "0B 00 00 00 00 00 00 00 08 00 00 00 A0 A1 A2 A3 A4 A5 A6 A7"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 06 00 04 00 10 00 00 00 "
                          "0B 00 00 00 00 00 00 00 08 00 00 00 08 00 00 00"));
    wfmgr_sends(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 05 00 04 00 10 00 00 00 "
                    "0B 00 00 00 00 00 00 00 08 00 00 00 B0 B1 B2 B3"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 06 00 04 00 10 00 00 00 "
                          "0B 00 00 00 00 00 00 00 08 00 00 00 00 00 00 00"));
    EXPECT_EQ(file("/amt/rf/small.bin"), hex("A0 A1 A2 A3 A4 A5 A6 A7 08 09"));
    EXPECT_EQ(phone_->sync_runs(), 2);
    EXPECT_TRUE(
        daemon_->wait_for_log("modify_rf_file len:8 reaches past the 4 bytes of data the request holds", kWait));
}

// A type without a row, a file that does not exist, a len with no room for
// its confirm, a request too short for its fields: zero bytes, no file made.
TEST_F(RfFileService, RequestsThatCannotBeServedAreAnsweredWithZeroBytesAndCreateNothing) {
    wfmgr_sends(hex("20 00 00 00 2A 00 00 00 FF FF FF FF 07 00 04 00 0C 00 00 00 08 00 00 00 00 00 00 00 04 00 00 00"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 08 00 04 00 10 00 00 00 "
                          "08 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00"));
    wfmgr_sends(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 05 00 04 00 10 00 00 00 "
                    "09 00 00 00 00 00 00 00 04 00 00 00 01 02 03 04"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 06 00 04 00 10 00 00 00 "
                          "09 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00"));
    // A len with no room for its confirm, len + 100 above the largest signed
    // 32-bit number, in both read forms.
    wfmgr_sends(hex("20 00 00 00 2A 00 00 00 FF FF FF FF 07 00 04 00 0C 00 00 00 07 00 00 00 00 00 00 00 FF FF FF FF"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 08 00 04 00 10 00 00 00 "
                          "07 00 00 00 00 00 00 00 FF FF FF FF 00 00 00 00"));
    wfmgr_sends(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 04 00 04 00 10 00 00 00 "
                    "00 00 00 00 00 00 00 00 9C FF FF 7F 99 00 00 00"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 03 00 04 00 10 00 00 00 "
                          "9A 00 00 00 00 00 00 00 9C FF FF 7F 00 00 00 00"));
    // A read that ends behind table_type and a modify that ends behind
    // offset: the len 0x7FFFFF9C just received stays in the buffer behind
    // them and must not be taken.
    wfmgr_sends(hex("18 00 00 00 2A 00 00 00 FF FF FF FF 07 00 04 00 04 00 00 00 07 00 00 00"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 08 00 04 00 10 00 00 00 "
                          "07 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
    wfmgr_sends(hex("1C 00 00 00 2A 00 00 00 FF FF FF FF 05 00 04 00 08 00 00 00 07 00 00 00 0A 00 00 00"));
    expect_wfmgr_gets(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 06 00 04 00 10 00 00 00 "
                          "07 00 00 00 0A 00 00 00 00 00 00 00 00 00 00 00"));
    EXPECT_TRUE(
        daemon_->wait_for_log_count("lacks its table_type, offset or len: answered with 0 bytes.", 2, kWait));
    EXPECT_EQ(file("/amt/rf/cal.bin"), cal_bytes());
    EXPECT_FALSE(phone_->exists("/amt/rf/missing.bin"));
    EXPECT_EQ(phone_->sync_runs(), 0);
}

TEST_F(RfFileService, StopDuringTheSyncOfAModifyEndsTheProcessWithoutAConfirm) {
    make_sync_slow();
    wfmgr_sends(hex("24 00 00 00 2A 00 00 00 FF FF FF FF 05 00 04 00 10 00 00 00 "
                    "07 00 00 00 0A 00 00 00 04 00 00 00 DE AD BE EF"));
    for (int i = 0; i < 500 && phone_->sync_runs() == 0; ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(phone_->sync_runs(), 1);
    ASSERT_TRUE(daemon_->signal(SIGTERM));
    EXPECT_EQ(daemon_->wait_exit(kWait), 0);
    EXPECT_FALSE(wfmgr_->read_message(kWait).has_value());
    EXPECT_EQ(daemon_->count_log("modify_rf_file stopped: no modify confirm."), 1u);
    EXPECT_EQ(phone_->sync_runs(), 1);
}

}  // namespace
}  // namespace e2e
