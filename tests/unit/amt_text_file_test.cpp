// The identity files and the store's write as the agent reads and writes them
// in a directory of their own (amt_relate_path points there).
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "log_capture.hpp"
#include "process/config.hpp"
#include "services/amt_text_file.hpp"
#include "services/file_replace.hpp"
#include "services/test_result_store.hpp"

namespace {

class AmtDirTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/ovta-amt-files-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        cfg_set_amt_relate_path((dir_ + "/").c_str());
    }
    void TearDown() override {
        cfg_set_amt_relate_path("");
        std::string cmd = "rm -rf '" + dir_ + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    void put(const std::string& name, const std::string& content) const {
        std::ofstream(path(name), std::ios::binary) << content;
    }
    std::string get(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    bool exists(const std::string& name) const { return access(path(name).c_str(), F_OK) == 0; }

    // The first line as read_amt_text_file gives it; "<-118>" when it fails.
    std::string read_text(const std::string& content) {
        put("board_no.txt", content);
        char out[kAmtTextSize];
        if (read_amt_text_file(out, "board_no.txt") != 0) return "<-118>";
        return out;
    }

    std::string dir_;
};

using AmtTextFile = AmtDirTest;

TEST_F(AmtTextFile, ReadTakesTheFirstLineAndDropsOneLineEndByte) {
    EXPECT_EQ(read_text("BN123\nsecond\n"), "BN123");
    EXPECT_EQ(read_text("BN123\r\n"), "BN123\r");  // of CR LF the CR stays
    EXPECT_EQ(read_text("BN123"), "BN123");
    EXPECT_EQ(read_text("\n"), "");
    EXPECT_EQ(read_text(std::string(150, 'a')), std::string(98, 'a'));
    EXPECT_EQ(read_text(""), "<-118>");
    char out[kAmtTextSize];
    EXPECT_EQ(read_amt_text_file(out, "no_such.txt"), -118);
}

TEST_F(AmtTextFile, WriteStoresExactlyTheTextAndAShorterOneLeavesNothingOfTheLonger) {
    EXPECT_EQ(write_amt_text_file("LONG-BOARD-NUMBER", 100, "board_no.txt"), 0);
    EXPECT_EQ(get("board_no.txt"), "LONG-BOARD-NUMBER");
    EXPECT_EQ(write_amt_text_file("AB\0CD", 100, "board_no.txt"), 0);  // up to the zero byte
    EXPECT_EQ(get("board_no.txt"), "AB");
    EXPECT_EQ(write_amt_text_file("ABCDEF", 4, "board_no.txt"), 0);  // no zero within reach
    EXPECT_EQ(get("board_no.txt"), "ABCD");
    EXPECT_FALSE(exists("board_no.txt.tmp"));
}

// Every write goes through a temporary file, but a failure's log line names
// the file the phone knows. The temporary file is made unwritable by making
// it a directory, or one that takes no byte by making it /dev/full.
TEST_F(AmtTextFile, FailedWritesNameTheirOwnFileAndLeaveItWhole) {
    LogCapture log;
    put("board_no.txt", "OLD");
    ASSERT_EQ(mkdir(path("board_no.txt.tmp").c_str(), 0755), 0);
    EXPECT_EQ(write_amt_text_file("NEW", 100, "board_no.txt"), -118);
    EXPECT_TRUE(log.contains("open(\"" + path("board_no.txt") + "\") fail: 21 - Is a directory")) << log.text();
    ASSERT_EQ(rmdir(path("board_no.txt.tmp").c_str()), 0);

    ASSERT_EQ(symlink("/dev/full", path("product_date.txt.tmp").c_str()), 0);
    put("product_date.txt", "20200101");
    EXPECT_EQ(write_amt_text_file("20240131", 100, "product_date.txt"), -118);
    EXPECT_TRUE(log.contains("write_amt_text_file write file(" + path("product_date.txt") +
                             ") failure. error:28-No space left on device."))
        << log.text();
    EXPECT_EQ(get("board_no.txt"), "OLD");
    EXPECT_EQ(get("product_date.txt"), "20200101");
    EXPECT_EQ(log.count(".tmp"), 0u);
}

// The last step, the rename over the file, fails when the file is a
// directory; its log line still names the file, not the temporary one, and
// the temporary file is gone.
TEST_F(AmtTextFile, FailedRenameNamesTheFileThePhoneKnows) {
    LogCapture log;
    for (const char* name : {"board_no.txt", "product_date.txt"}) {
        ASSERT_EQ(mkdir(path(name).c_str(), 0755), 0);
        EXPECT_EQ(write_amt_text_file("NEW", 100, name), -118) << name;
        EXPECT_TRUE(log.contains("write_amt_text_file replace file(" + path(name) + ") failure. error:21-Is a directory."))
            << log.text();
        EXPECT_FALSE(exists(std::string(name) + ".tmp"));
    }
    {
        FileReplacement store("modify_test_result_value", path("test_result.txt").c_str(),
                              path("test_result_temp001.txt").c_str());
        ASSERT_EQ(mkdir(path("test_result.txt").c_str(), 0755), 0);
        ASSERT_TRUE(store.open());
        EXPECT_FALSE(store.commit());
    }
    EXPECT_TRUE(log.contains("modify_test_result_value replace file(" + path("test_result.txt") +
                             ") failure. error:21-Is a directory."))
        << log.text();
    EXPECT_FALSE(exists("test_result_temp001.txt"));
    EXPECT_EQ(log.count(".tmp"), 0u);
    EXPECT_EQ(log.count("temp001"), 0u);
}

TEST_F(AmtTextFile, FailedStoreWritesNameTestResultTxt) {
    LogCapture log;
    ASSERT_EQ(mkdir(path("test_result_temp001.txt").c_str(), 0755), 0);
    EXPECT_EQ(amt_init_test_result_file(), -118);
    EXPECT_TRUE(log.contains("amt_init_test_result_file open file(" + path("test_result.txt") +
                             ") failure. error:21-Is a directory."))
        << log.text();
    EXPECT_FALSE(exists("test_result.txt"));
    ASSERT_EQ(rmdir(path("test_result_temp001.txt").c_str()), 0);

    put("test_result.txt", "3,0,\r\n");
    ASSERT_EQ(symlink("/dev/full", path("test_result_temp001.txt").c_str()), 0);
    std::string m(24, '\0');
    m[16] = 3;
    m += std::string("ok") + std::string(4, '\0');
    EXPECT_EQ(modify_test_result_value(reinterpret_cast<const uint8_t*>(m.data()), m.size()), -118);
    EXPECT_TRUE(log.contains("modify_test_result_value write file(" + path("test_result.txt") +
                             ") failure. error:28-No space left on device."))
        << log.text();
    EXPECT_EQ(get("test_result.txt"), "3,0,\r\n");
}

// A request frame of command 91 (header left zero), zero behind its CRC.
std::string write_request(uint32_t site, uint32_t result, const std::string& description) {
    std::string m(24, '\0');
    for (int i = 0; i < 4; ++i) {
        m[16 + i] = static_cast<char>(site >> (8 * i));
        m[20 + i] = static_cast<char>(result >> (8 * i));
    }
    return m + description + std::string(4, '\0');
}

using TestResultRead = AmtDirTest;

// A two-digit station is not the station of its first digit: the lines of 12
// and 55 come before those of 1 and 5 and must not answer for them.
TEST_F(TestResultRead, StationIsMatchedByItsWholeNumberNotItsFirstDigit) {
    put("test_result.txt", "12,7,twelve\r\n55,9,fifty-five\r\n1,3,one\r\n5,4,five\r\n");
    struct Want {
        uint32_t site;
        uint32_t result;
        const char* description;
    };
    for (const Want& want : {Want{1, 3, "one"}, Want{5, 4, "five"}, Want{12, 7, "twelve"}, Want{55, 9, "fifty-five"}}) {
        TestResultInfo info;
        get_test_result_info(want.site, &info);
        EXPECT_EQ(info.result_code, kResultStationFound) << want.site;
        EXPECT_EQ(info.station_result, want.result) << want.site;
        EXPECT_EQ(std::string(info.description, info.description_len), want.description) << want.site;
    }
}

using TestResultWrite = AmtDirTest;

// A missing store is not created by a write; one that opens but cannot be
// read stays as it was and reads as no store. The temporary file goes.
TEST_F(TestResultWrite, MissingOrUnreadableStoreStaysAsItWas) {
    std::string m = write_request(3, 1, "x");
    EXPECT_EQ(modify_test_result_value(reinterpret_cast<const uint8_t*>(m.data()), m.size()), -118);
    EXPECT_FALSE(exists("test_result.txt"));
    EXPECT_FALSE(exists("test_result_temp001.txt"));

    ASSERT_EQ(mkdir(path("test_result.txt").c_str(), 0755), 0);  // opens, but every read fails
    EXPECT_EQ(modify_test_result_value(reinterpret_cast<const uint8_t*>(m.data()), m.size()), -118);
    struct stat st {};
    ASSERT_EQ(stat(path("test_result.txt").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_FALSE(exists("test_result_temp001.txt"));
    TestResultInfo info;
    get_test_result_info(3, &info);
    EXPECT_EQ(info.result_code, kResultStoreFailed);
}

TEST_F(TestResultWrite, LeftoverTemporaryFileOfACutWriteIsReplaced) {
    put("test_result.txt", "0,0,\r\n3,0,\r\n");
    put("test_result_temp001.txt", std::string(5000, 'G'));
    std::string m = write_request(3, 4, "ok");
    EXPECT_EQ(modify_test_result_value(reinterpret_cast<const uint8_t*>(m.data()), m.size()), 0);
    EXPECT_EQ(get("test_result.txt"), "0,0,\r\n3,4,ok\r\n");
    EXPECT_FALSE(exists("test_result_temp001.txt"));
}

}  // namespace
