// The test result store against the real agent: /amt/test_result.txt made
// fresh on demand, read and rewritten line by line, and whole at every instant.
#include <csignal>
#include <sys/stat.h>

#include "factory_command_test.hpp"

namespace e2e {
namespace {

constexpr const char* kReadStation0 = "AA BB CC DD 10 00 00 00 02 00 00 00 59 00 00 00 00 00 00 00 08 2D A5 3F";
constexpr const char* kReadStation12 = "AA BB CC DD 10 00 00 00 02 00 00 00 59 00 00 00 0C 00 00 00 C4 46 03 10";
constexpr const char* kReadStation64 = "AA BB CC DD 10 00 00 00 02 00 00 00 59 00 00 00 40 00 00 00 72 03 5B 5E";
constexpr const char* kFoundFresh =
    "AA BB CC DD 14 00 00 00 02 00 00 00 5A 00 00 00 00 00 00 00 00 00 00 00 89 35 20 BB";
constexpr const char* kNoLine = "AA BB CC DD 14 00 00 00 02 00 00 00 5A 00 00 00 03 00 00 00 00 00 00 00 B4 A5 F7 AF";
// Station 12, result 1, description "ab".
constexpr const char* kWrite12 =
    "AA BB CC DD 16 00 00 00 02 00 00 00 5B 00 00 00 0C 00 00 00 01 00 00 00 61 62 AD EA BA 4C";
constexpr const char* kStored = "AA BB CC DD 10 00 00 00 02 00 00 00 5C 00 00 00 00 00 00 00 EE 03 1A 6A";
constexpr const char* kNotStored = "AA BB CC DD 10 00 00 00 02 00 00 00 5C 00 00 00 0A 00 00 00 E4 23 8A FB";

// The 64 lines of a fresh store, with `line` in place of station `station`'s.
std::string fresh_store(int station = -1, const std::string& line = "") {
    std::string s;
    for (int i = 0; i < 64; ++i) s += i == station ? line : std::to_string(i) + ",0,\r\n";
    return s;
}

class TestResultStore : public FactoryCommandTest {
protected:
    // A phone whose store already exists, so no command pauses to make it.
    bool start_with_store(const std::string& content) {
        if (!make_phone(amt_phone()) || !phone_->write_file("/amt/test_result.txt", content)) return false;
        return start();
    }
};

TEST_F(TestResultStore, FirstReadMakesAFreshStoreOf64LinesAndFindsStation0) {
    ASSERT_TRUE(start());
    exchange(kReadStation0, kFoundFresh);
    auto store = phone_->read_file("/amt/test_result.txt");
    ASSERT_TRUE(store.has_value());
    EXPECT_EQ(store->size(), 438u);
    EXPECT_EQ(*store, fresh_store());
    EXPECT_FALSE(phone_->exists("/amt/test_result_temp001.txt"));
    EXPECT_EQ(phone_->sync_runs(), 1);
    EXPECT_EQ(daemon_->count_log("amt_init_test_result_file (/amt/test_result.txt). OK"), 1u);
}

TEST_F(TestResultStore, WriteReplacesOnlyItsStationsLineAndAStationWithoutALineIsNotFound) {
    ASSERT_TRUE(start_with_store(fresh_store()));
    exchange(kWrite12, kStored);
    EXPECT_EQ(phone_->read_file("/amt/test_result.txt"), fresh_store(12, "12,1,ab\r\n"));
    EXPECT_FALSE(phone_->exists("/amt/test_result_temp001.txt"));
    EXPECT_EQ(phone_->sync_runs(), 2);
    exchange(kReadStation12,
             "AA BB CC DD 16 00 00 00 02 00 00 00 5A 00 00 00 00 00 00 00 01 00 00 00 61 62 04 2D 68 11");
    // A station without a line is not found, and its write changes nothing.
    exchange(kReadStation64, kNoLine);
    exchange("AA BB CC DD 16 00 00 00 02 00 00 00 5B 00 00 00 40 00 00 00 01 00 00 00 7A 7A 11 2B 47 0F", kStored);
    EXPECT_EQ(phone_->read_file("/amt/test_result.txt"), fresh_store(12, "12,1,ab\r\n"));
}

TEST_F(TestResultStore, EmptyStoreIsMadeFreshButAOneByteStoreIsServedAsItIs) {
    ASSERT_TRUE(start_with_store("x"));
    exchange(kReadStation0, kNoLine);
    EXPECT_EQ(phone_->read_file("/amt/test_result.txt"), "x");

    ASSERT_TRUE(phone_->write_file("/amt/test_result.txt", ""));
    exchange(kReadStation0, kFoundFresh);
    EXPECT_EQ(phone_->read_file("/amt/test_result.txt"), fresh_store());
}

TEST_F(TestResultStore, WriteFrameWithoutSiteAndResultIsRefusedAndTouchesNothing) {
    ASSERT_TRUE(start());
    // frame_len 16: a site_no but no result.
    exchange("AA BB CC DD 10 00 00 00 02 00 00 00 5B 00 00 00 0C 00 00 00 A8 93 BD 7E", kNotStored);
    EXPECT_FALSE(phone_->exists("/amt/test_result.txt"));
    EXPECT_EQ(phone_->sync_runs(), 0);
    EXPECT_EQ(daemon_->count_log("treat_write_test_result_cmd frame of 24 bytes holds no site_no and result"), 1u);
}

// Line ends are left out of a description (unit-tested with the line's
// format); a long one must not spill over the lines behind it.
TEST_F(TestResultStore, DescriptionNeverBreaksTheLineStructure) {
    ASSERT_TRUE(start_with_store(fresh_store()));
    // 600 bytes of description and a CRC of four zero bytes: the line is cut
    // to 498 bytes with its CR LF, so that a read takes it whole.
    sandbox::Bytes request = hex("AA BB CC DD 6C 02 00 00 02 00 00 00 5B 00 00 00 07 00 00 00 02 00 00 00");
    request.insert(request.end(), 600, 'x');
    request.insert(request.end(), 4, 0);
    pc_sends(request);
    expect_pc_gets(concat({kPreResponse, hex(kStored)}));
    EXPECT_EQ(phone_->read_file("/amt/test_result.txt"), fresh_store(7, "7,2," + std::string(492, 'x') + "\r\n"));
    EXPECT_TRUE(daemon_->wait_for_log("description: last 108 bytes cut", kWait));
}

TEST_F(TestResultStore, WriteThatCannotOpenItsTemporaryFileLeavesTheStoreAsItWas) {
    ASSERT_TRUE(make_phone(amt_phone()));
    ASSERT_TRUE(phone_->write_file("/amt/test_result.txt", fresh_store()));
    ASSERT_EQ(mkdir(phone_->host_path("/amt/test_result_temp001.txt").c_str(), 0755), 0);
    ASSERT_TRUE(start());
    exchange(kWrite12, kNotStored);
    EXPECT_EQ(phone_->read_file("/amt/test_result.txt"), fresh_store());
    EXPECT_EQ(phone_->sync_runs(), 0);
}

// A stop during the two seconds behind a fresh store ends the pause at once:
// the sync that follows it never runs, the command is not answered, and the
// store is whole.
TEST_F(TestResultStore, StopDuringTheFreshStorePauseEndsTheAgentWithTheStoreWhole) {
    ASSERT_TRUE(start());
    ASSERT_TRUE(pc_->send(hex(kReadStation0)));
    ASSERT_TRUE(daemon_->wait_for_log("amt_init_test_result_file (/amt/test_result.txt).", kWait));
    std::this_thread::sleep_for(300ms);  // the store is written by now; the pause runs
    ASSERT_TRUE(daemon_->signal(SIGTERM));
    EXPECT_EQ(daemon_->wait_exit(kWait), 0);
    EXPECT_EQ(phone_->read_file("/amt/test_result.txt"), fresh_store());
    EXPECT_FALSE(phone_->exists("/amt/test_result_temp001.txt"));
    EXPECT_EQ(phone_->sync_runs(), 0);
    EXPECT_EQ(daemon_->count_log("amt_init_test_result_file (/amt/test_result.txt). OK"), 0u);
    expect_pc_gets(kPreResponse);
    EXPECT_TRUE(pc_->quiet_for(100ms));
}

}  // namespace
}  // namespace e2e
