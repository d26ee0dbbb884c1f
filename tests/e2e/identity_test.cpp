// The identity commands against the real agent: the version from its
// property, the production date and the board number from their files in
// /amt/. Request CRCs are not checked by the agent; where a text runs into
// them, the test chooses their bytes.
#include <sys/stat.h>

#include "factory_command_test.hpp"

namespace e2e {
namespace {

using Identity = FactoryCommandTest;

constexpr const char* kReadVersion = "AA BB CC DD 10 00 00 00 02 00 00 00 2D 00 00 00 01 00 00 00 98 2B 36 6E";
constexpr const char* kReadDate = "AA BB CC DD 0C 00 00 00 02 00 00 00 41 00 00 00 9A 42 09 3E";
constexpr const char* kReadBoard = "AA BB CC DD 0C 00 00 00 02 00 00 00 55 00 00 00 44 68 78 34";
constexpr const char* kDateStored = "AA BB CC DD 10 00 00 00 02 00 00 00 44 00 00 00 00 00 00 00 DF 6B 5A 90";
constexpr const char* kDateNotStored = "AA BB CC DD 10 00 00 00 02 00 00 00 44 00 00 00 0A 00 00 00 D5 4B CA 01";
constexpr const char* kBoardStored = "AA BB CC DD 10 00 00 00 02 00 00 00 58 00 00 00 00 00 00 00 59 68 CC 45";
constexpr const char* kBoardNotStored = "AA BB CC DD 10 00 00 00 02 00 00 00 58 00 00 00 0A 00 00 00 53 48 5C D4";

TEST_F(Identity, VersionOf91BytesCarriesItsFirst64) {
    ASSERT_TRUE(make_phone(amt_phone()));
    ASSERT_TRUE(phone_->write_file("/run/ovta-amt/properties/ro.build.display.tq.id",
                                   "V012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789"));
    ASSERT_TRUE(start());
    exchange(kReadVersion,
             "AA BB CC DD 54 00 00 00 02 00 00 00 2E 00 00 00 00 00 00 00 01 00 00 00 "
             "56 30 31 32 33 34 35 36 37 38 39 30 31 32 33 34 35 36 37 38 39 30 31 32 33 34 35 36 37 38 39 "
             "30 31 32 33 34 35 36 37 38 39 30 31 32 33 34 35 36 37 38 39 30 31 32 33 34 35 36 37 38 39 30 31 32 "
             "C9 BF 65 EF");
}

// Without the property the version is the single byte "0"; the missing files
// answer "not read" in their own shapes.
TEST_F(Identity, AFreshPhoneHasVersionZeroAndNeitherDateNorBoard) {
    ASSERT_TRUE(start());
    exchange(kReadVersion, "AA BB CC DD 15 00 00 00 02 00 00 00 2E 00 00 00 00 00 00 00 01 00 00 00 30 AA A7 BE E3");
    exchange(kReadDate,
             "AA BB CC DD 1C 00 00 00 02 00 00 00 42 00 00 00 0A 00 00 00 "
             "00 00 00 00 00 00 00 00 00 00 00 00 81 E8 47 DC");
    exchange(kReadBoard, "AA BB CC DD 10 00 00 00 02 00 00 00 56 00 00 00 0A 00 00 00 C0 AA 3C 19");
}

TEST_F(Identity, DateIsStoredAsSentSyncedTwiceAndReadBack) {
    ASSERT_TRUE(start());
    // "20240131" with its terminator in the body.
    exchange("AA BB CC DD 15 00 00 00 02 00 00 00 43 00 00 00 32 30 32 34 30 31 33 31 00 55 D2 50 55", kDateStored);
    EXPECT_EQ(phone_->read_file("/amt/product_date.txt"), "20240131");
    EXPECT_FALSE(phone_->exists("/amt/product_date.txt.tmp"));
    EXPECT_EQ(phone_->sync_runs(), 2);
    exchange(kReadDate,
             "AA BB CC DD 1C 00 00 00 02 00 00 00 42 00 00 00 00 00 00 00 "
             "32 30 32 34 30 31 33 31 00 00 00 00 C8 36 0B CB");
}

// A date without terminator takes the CRC's bytes up to a zero byte and reads
// back as its ten bytes. Behind each frame the agent's buffer is zero, also
// after a longer frame: such a date runs through its CRC and ends there.
TEST_F(Identity, DateWithoutTerminatorRunsThroughItsCrcOnlyAndReadsBackAsItsTenBytes) {
    ASSERT_TRUE(start());
    // "2024-01-31" and a CRC of 58 59 00 01: the file gets "XY" behind the text.
    exchange("AA BB CC DD 16 00 00 00 02 00 00 00 43 00 00 00 32 30 32 34 2D 30 31 2D 33 31 58 59 00 01",
             kDateStored);
    EXPECT_EQ(phone_->read_file("/amt/product_date.txt"), "2024-01-31XY");
    exchange(kReadDate,
             "AA BB CC DD 1C 00 00 00 02 00 00 00 42 00 00 00 00 00 00 00 "
             "32 30 32 34 2D 30 31 2D 33 31 00 00 B8 9B 1B 95");
    // Command 100 (forwarded to wfmgr) with 64 bytes of 'Q' in its body.
    sandbox::Bytes longer = hex("AA BB CC DD 4C 00 00 00 02 00 00 00 64 00 00 00");
    longer.insert(longer.end(), 64 + 4, 'Q');
    pc_sends(longer);
    expect_pc_gets(kPreResponse);
    // "2024-01-31" and a CRC of 58 59 5A 5B, without a zero byte.
    exchange("AA BB CC DD 16 00 00 00 02 00 00 00 43 00 00 00 32 30 32 34 2D 30 31 2D 33 31 58 59 5A 5B",
             kDateStored);
    EXPECT_EQ(phone_->read_file("/amt/product_date.txt"), "2024-01-31XYZ[");
}

TEST_F(Identity, BoardOf19BytesIsStoredExactlyAndALongerFileReadsAsItsFirst20) {
    ASSERT_TRUE(start());
    exchange("AA BB CC DD 1F 00 00 00 02 00 00 00 57 00 00 00 "
             "42 4E 2D 30 31 32 33 34 35 36 37 38 39 41 42 43 44 45 46 53 BD D7 A6",
             kBoardStored);
    EXPECT_EQ(phone_->read_file("/amt/board_no.txt"), "BN-0123456789ABCDEF");
    exchange(kReadBoard,
             "AA BB CC DD 23 00 00 00 02 00 00 00 56 00 00 00 00 00 00 00 "
             "42 4E 2D 30 31 32 33 34 35 36 37 38 39 41 42 43 44 45 46 D5 EF 4F 41");

    ASSERT_TRUE(phone_->write_file("/amt/board_no.txt", "BOARD-0123456789ABCDEFGHI\r\nsecond line\r\n"));
    exchange(kReadBoard,
             "AA BB CC DD 24 00 00 00 02 00 00 00 56 00 00 00 00 00 00 00 "
             "42 4F 41 52 44 2D 30 31 32 33 34 35 36 37 38 39 41 42 43 44 42 2C 12 8A");
}

TEST_F(Identity, EmptyBoardBodyIsRefusedAndTheOldFileStands) {
    ASSERT_TRUE(make_phone(amt_phone()));
    ASSERT_TRUE(phone_->write_file("/amt/board_no.txt", "OLD-BOARD"));
    ASSERT_TRUE(start());
    // No body: the terminator lands on the CRC's first byte, the text is empty.
    exchange("AA BB CC DD 0C 00 00 00 02 00 00 00 57 00 00 00 11 22 33 44", kBoardNotStored);
    // frame_len 8: not even a cmd word and a CRC.
    exchange("AA BB CC DD 08 00 00 00 02 00 00 00 57 00 00 00", kBoardNotStored);
    EXPECT_EQ(phone_->read_file("/amt/board_no.txt"), "OLD-BOARD");
    EXPECT_EQ(phone_->sync_runs(), 0);
}

// The new text is written beside the file first; when that cannot be done the
// old file is kept whole, and nothing was written to sync.
TEST_F(Identity, DateThatCannotBeWrittenLeavesTheOldFileWhole) {
    ASSERT_TRUE(make_phone(amt_phone()));
    ASSERT_TRUE(phone_->write_file("/amt/product_date.txt", "20200101"));
    ASSERT_EQ(mkdir(phone_->host_path("/amt/product_date.txt.tmp").c_str(), 0755), 0);
    ASSERT_TRUE(start());
    exchange("AA BB CC DD 15 00 00 00 02 00 00 00 43 00 00 00 32 30 32 34 30 31 33 31 00 55 D2 50 55",
             kDateNotStored);
    EXPECT_EQ(phone_->read_file("/amt/product_date.txt"), "20200101");
    EXPECT_EQ(phone_->sync_runs(), 0);
    // The line names the file the phone knows, not the one the write goes through.
    EXPECT_TRUE(daemon_->wait_for_log("open(\"/amt/product_date.txt\") fail: 21 - Is a directory", kWait));
}

}  // namespace
}  // namespace e2e
