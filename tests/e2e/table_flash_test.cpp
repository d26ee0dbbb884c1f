// PC commands 61 and 63 on the RF table files that wfmgr announced, over the
// real PC line: every answer is checked byte for byte, and the file on the
// phone afterwards.
#include <csignal>

#include "rf_phone_test.hpp"

namespace e2e {
namespace {

// Responses with a result word only.
const Bytes kRsp62NothingRead = hex("AA BB CC DD 10 00 00 00 02 00 00 00 3E 00 00 00 0A 00 00 00 E0 59 B4 05");
const Bytes kRsp64Written = hex("AA BB CC DD 10 00 00 00 02 00 00 00 40 00 00 00 00 00 00 00 68 00 8C BF");
const Bytes kRsp64Refused = hex("AA BB CC DD 10 00 00 00 02 00 00 00 40 00 00 00 0A 00 00 00 62 20 1C 2E");

class TableFlash : public RfPhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        if (IsSkipped()) return;
        start_agent();
    }

    // The PC sends a request and gets the pre-response, then `want`.
    void ask(const Bytes& request, const Bytes& want) {
        pc_sends(request);
        expect_pc_gets(concat({kPreResponse, want}));
    }
};

TEST_F(TableFlash, ReadAnswersTheBytesThatExistAndResult0OnlyWhenAllWereRead) {
    // table_type 7, offset 900, len 100: the last 100 bytes of cal.bin.
    ask(hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 07 00 00 00 84 03 00 00 64 00 00 00 98 FB 1B 1F"),
        concat({hex("AA BB CC DD 74 00 00 00 02 00 00 00 3E 00 00 00 00 00 00 00"), slice(cal_bytes(), 900, 100),
                hex("7E A1 0F 7E")}));
    // len 200: the same 100 bytes with result_code 10.
    ask(hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 07 00 00 00 84 03 00 00 C8 00 00 00 2A 2B 86 B3"),
        concat({hex("AA BB CC DD 74 00 00 00 02 00 00 00 3E 00 00 00 0A 00 00 00"), slice(cal_bytes(), 900, 100),
                hex("A9 42 EA 42")}));
    // len 0: all of nothing was read.
    ask(hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 07 00 00 00 00 00 00 00 00 00 00 00 62 83 D2 89"),
        hex("AA BB CC DD 10 00 00 00 02 00 00 00 3E 00 00 00 00 00 00 00 EA 79 24 94"));
    // At the end of the file and far beyond it: nothing read, 24 bytes.
    ask(hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 07 00 00 00 E8 03 00 00 0A 00 00 00 57 85 7D 1B"),
        kRsp62NothingRead);
    ask(hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 07 00 00 00 88 13 00 00 0A 00 00 00 B5 0B CD 24"),
        kRsp62NothingRead);
}

TEST_F(TableFlash, NoFileBehindTheTableTypeIsRefusedOnBothCommandsAndNothingIsCreated) {
    // Read and write of type 8, a write of 0x10007, whose low 16 bits are the
    // type of cal.bin, and a write of type 9, whose file does not exist.
    ask(hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 08 00 00 00 00 00 00 00 04 00 00 00 9F 10 C2 35"),
        kRsp62NothingRead);
    ask(hex("AA BB CC DD 1C 00 00 00 02 00 00 00 3F 00 00 00 08 00 00 00 00 00 00 00 04 00 00 00 01 02 03 04 "
            "06 8B 34 95"),
        kRsp64Refused);
    ask(hex("AA BB CC DD 1C 00 00 00 02 00 00 00 3F 00 00 00 07 00 01 00 00 00 00 00 04 00 00 00 01 02 03 04 "
            "0F AB 1A 9A"),
        kRsp64Refused);
    ask(hex("AA BB CC DD 1C 00 00 00 02 00 00 00 3F 00 00 00 09 00 00 00 00 00 00 00 04 00 00 00 01 02 03 04 "
            "F3 06 16 F9"),
        kRsp64Refused);
    EXPECT_TRUE(daemon_->wait_for_log_count("call get_rf_specified_file,error .", 3, kWait));
    EXPECT_EQ(file("/amt/rf/cal.bin"), cal_bytes());
    EXPECT_FALSE(phone_->exists("/amt/rf/missing.bin"));
    EXPECT_EQ(phone_->sync_runs(), 0);
}

// A write changes exactly its slice and syncs twice. Its len is bounded by
// the data the frame carries: the CRC behind them and the zeros behind the
// frame are no bytes the PC sent.
TEST_F(TableFlash, WriteChangesItsSliceButALenPastTheFramesDataIsRefused) {
    // Two bytes of data 55 66 with len 3, len 8, and len 40933 without data.
    ask(hex("AA BB CC DD 1A 00 00 00 02 00 00 00 3F 00 00 00 07 00 00 00 00 00 00 00 03 00 00 00 55 66 38 79 66 72"),
        kRsp64Refused);
    ask(hex("AA BB CC DD 1A 00 00 00 02 00 00 00 3F 00 00 00 07 00 00 00 00 00 00 00 08 00 00 00 55 66 79 78 3D 32"),
        kRsp64Refused);
    ask(hex("AA BB CC DD 18 00 00 00 02 00 00 00 3F 00 00 00 07 00 00 00 D0 07 00 00 E5 9F 00 00 B4 FA 5B BA"),
        kRsp64Refused);
    EXPECT_EQ(file("/amt/rf/cal.bin"), cal_bytes());
    EXPECT_EQ(phone_->sync_runs(), 0);
    EXPECT_TRUE(daemon_->wait_for_log("modify_table_flash_file len:3 reaches past the 2 bytes of data", kWait));
    EXPECT_TRUE(daemon_->wait_for_log("modify_table_flash_file len:40933 reaches past the 0 bytes of data", kWait));
    // len 2: exactly the data.
    ask(hex("AA BB CC DD 1A 00 00 00 02 00 00 00 3F 00 00 00 07 00 00 00 00 00 00 00 02 00 00 00 55 66 BE 2F 47 99"),
        kRsp64Written);
    Bytes want = cal_bytes();
    want[0] = 0x55;
    want[1] = 0x66;
    EXPECT_EQ(file("/amt/rf/cal.bin"), want);
    EXPECT_EQ(phone_->sync_runs(), 2);
}

TEST_F(TableFlash, ReadLenWithNoRoomForItsResponseGetsOnlyThePreResponse) {
    // len 0x7FFFFF9C: len + 100 passes the largest signed 32-bit number; then all ones.
    pc_sends(hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 07 00 00 00 00 00 00 00 9C FF FF 7F CD 8D 8B B7"));
    expect_pc_gets(kPreResponse);
    pc_sends(hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 07 00 00 00 00 00 00 00 FF FF FF FF 4F 75 20 DA"));
    expect_pc_gets(kPreResponse);
    expect_pc_quiet();
    EXPECT_TRUE(daemon_->wait_for_log_count("malloc temp-buffer memory fail error:12-", 2, kWait));
    // The line is still served.
    ask(hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 07 00 00 00 E8 03 00 00 0A 00 00 00 57 85 7D 1B"),
        kRsp62NothingRead);
}

TEST_F(TableFlash, StopDuringTheSyncOfAWriteEndsTheProcessWithoutAnswering) {
    make_sync_slow();
    pc_sends(hex("AA BB CC DD 1C 00 00 00 02 00 00 00 3F 00 00 00 07 00 00 00 0A 00 00 00 04 00 00 00 DE AD BE EF "
                 "59 E9 8B 1A"));
    expect_pc_gets(kPreResponse);
    // The first sync runs (and would take 20 s) once its record is written.
    for (int i = 0; i < 500 && phone_->sync_runs() == 0; ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(phone_->sync_runs(), 1);
    ASSERT_TRUE(daemon_->signal(SIGTERM));
    EXPECT_EQ(daemon_->wait_exit(kWait), 0);
    EXPECT_EQ(phone_->sync_runs(), 1);
    EXPECT_EQ(daemon_->count_log("modify_table_flash_file stopped: no response 64."), 1u);
    EXPECT_EQ(slice(file("/amt/rf/cal.bin"), 10, 4), hex("DE AD BE EF"));
}

}  // namespace
}  // namespace e2e
