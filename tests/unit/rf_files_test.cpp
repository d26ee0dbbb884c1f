// The lookup of an RF table file by table_type, and slice reads and writes of
// real files in a temporary directory. On the host /system/bin/sync does not
// exist, so each run of the sync ritual shows as its failure line in the log.
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "log_capture.hpp"
#include "process/config.hpp"
#include "process/pub_util.hpp"
#include "services/rf_files.hpp"
#include "services/rftab_list.hpp"
#include "user_mode_emulation.hpp"

namespace {

constexpr const char* kSyncRun = "run /system/bin/sync failure";

void set_rows(std::initializer_list<std::pair<uint16_t, std::string>> rows) {
    uint8_t list[kRftabListSize] = {};
    size_t i = 0;
    for (const auto& [type, name] : rows) {
        uint8_t* r = list + i++ * kRftabRowSize;
        r[0] = static_cast<uint8_t>(type);
        r[1] = static_cast<uint8_t>(type >> 8);
        memcpy(r + kRftabNameOffset, name.data(), std::min(name.size(), kRftabNameSize - 1));
    }
    rftab_list_replace(list, static_cast<uint32_t>(i * kRftabRowSize));
}

// A type without a row leaves the buffer and gives an empty full name; the
// name goes straight behind the directory and is cut two below the buffer.
TEST(RfLookup, NameGoesStraightBehindTheDirectoryAndATypeWithoutARowGivesNothing) {
    cfg_init();
    set_rows({{7, "cal.bin"}, {9, std::string(63, 'n')}});
    cfg_set_rf_relate_path("/amt/rf");  // no separator is added
    char dst[16] = "untouched";
    EXPECT_EQ(get_rf_specified_file(dst, sizeof(dst), 8), -1);
    EXPECT_STREQ(dst, "untouched");
    char full[kAmtPathSize];
    memset(full, 'x', sizeof(full));
    EXPECT_EQ(get_rf_code_full_file_name(8, full), 0);
    EXPECT_STREQ(full, "");
    EXPECT_EQ(get_rf_specified_file(nullptr, 16, 7), kRetBadSize);
    EXPECT_EQ(get_rf_specified_file(dst, 0, 7), kRetBadSize);

    EXPECT_EQ(get_rf_code_full_file_name(7, full), 0);
    EXPECT_STREQ(full, "/amt/rfcal.bin");
    char small[10];
    EXPECT_EQ(get_rf_specified_file(small, sizeof(small), 7), 0);
    EXPECT_STREQ(small, "/amt/rfc");
    // The file service's 128-byte buffer keeps 126 characters of 222.
    cfg_set_rf_relate_path(std::string(159, 'd').c_str());
    EXPECT_EQ(get_rf_code_full_file_name(9, full), 0);
    EXPECT_EQ(strlen(full), 126u);
    cfg_init();
}

class BinaryFile : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/ovta-rf-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/table.bin";
        missing_ = dir_ + "/missing.bin";
        std::ofstream out(path_, std::ios::binary);
        for (int i = 0; i < 100; ++i) out.put(static_cast<char>(i));
    }
    void TearDown() override {
        unlink(path_.c_str());
        unlink(missing_.c_str());
        rmdir(dir_.c_str());
    }
    std::vector<uint8_t> content() {
        std::ifstream in(path_, std::ios::binary);
        std::ostringstream s;
        s << in.rdbuf();
        std::string t = s.str();
        return {t.begin(), t.end()};
    }

    std::string dir_, path_, missing_;
};

TEST_F(BinaryFile, ReadTakesWhatLiesBetweenOffsetAndTheEndAndFailsOnlyOnTheFile) {
    LogCapture log;
    uint8_t buf[200];
    uint32_t n = 99;
    EXPECT_EQ(read_binary_file(buf, path_.c_str(), 60, 100, &n), 0);
    ASSERT_EQ(n, 40u);
    EXPECT_EQ(buf[0], 60);
    EXPECT_EQ(buf[39], 99);
    EXPECT_EQ(read_binary_file(buf, path_.c_str(), 100, 10, &n), 0);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(read_binary_file(buf, path_.c_str(), 0xFFFFFFFF, 10, &n), 0);
    EXPECT_EQ(n, 0u);
    n = 99;
    EXPECT_EQ(read_binary_file(buf, "", 0, 4, &n), kRetNullArg);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(read_binary_file(buf, missing_.c_str(), 0, 4, &n), -1);
    EXPECT_TRUE(log.contains("read_binary_file open file(" + missing_ + ") failure error:2-No such file or directory"));
}

TEST_F(BinaryFile, WriteReplacesItsSliceLengthensPastTheEndAndSyncsTwiceEvenForNothing) {
    if (under_user_mode_emulation()) {
        GTEST_SKIP() << "qemu-user starts a missing program with success (its child exits 127), so no run of "
                        "/system/bin/sync fails in the log";
    }
    LogCapture log;
    const uint8_t data[] = {0xA1, 0xA2, 0xA3};
    uint32_t n = 0;
    EXPECT_EQ(modify_binary_file(data, path_.c_str(), 10, 3, &n), 0);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(modify_binary_file(data, path_.c_str(), 105, 3, &n), 0);
    EXPECT_EQ(modify_binary_file(data, path_.c_str(), 0, 0, &n), 0);
    EXPECT_EQ(n, 0u);
    std::vector<uint8_t> want(108);
    for (size_t i = 0; i < 100; ++i) want[i] = static_cast<uint8_t>(i);
    want[10] = 0xA1, want[11] = 0xA2, want[12] = 0xA3;
    want[105] = 0xA1, want[106] = 0xA2, want[107] = 0xA3;  // 100..104 read as zero
    EXPECT_EQ(content(), want);
    EXPECT_EQ(log.count(kSyncRun), 6u);
}

// Offsets are 32-bit unsigned: a slice at 2 GiB and beyond, up to the last
// bytes below 4 GiB, lands where it says, on 32-bit systems too. The file
// grows with a hole and is read back across the hole's end.
TEST_F(BinaryFile, SlicesFrom2GiBUpTo4GiBLandAtTheirOffset) {
    LogCapture log;
    const uint8_t data[] = {0xB1, 0xB2, 0xB3, 0xB4};
    const uint8_t want[] = {0x00, 0x00, 0xB1, 0xB2, 0xB3, 0xB4};
    for (uint32_t offset : {0x80000000u, 0xFFFFFFFCu}) {
        SCOPED_TRACE(offset);
        uint32_t n = 0;
        ASSERT_EQ(modify_binary_file(data, path_.c_str(), offset, 4, &n), 0);
        EXPECT_EQ(n, 4u);
        int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        uint8_t back[4] = {};
        EXPECT_EQ(pread(fd, back, sizeof(back), static_cast<off_t>(offset)), 4);
        close(fd);
        EXPECT_EQ(memcmp(back, data, sizeof(data)), 0);
        uint8_t got[8] = {};
        EXPECT_EQ(read_binary_file(got, path_.c_str(), offset - 2, sizeof(got), &n), 0);
        ASSERT_EQ(n, sizeof(want));
        EXPECT_EQ(memcmp(got, want, sizeof(want)), 0);
    }
}

TEST_F(BinaryFile, FailedWriteCreatesNothingCountsNothingAndSyncsNothing) {
    LogCapture log;
    const uint8_t data[] = {1, 2, 3, 4};
    uint32_t n = 99;
    EXPECT_EQ(modify_binary_file(data, missing_.c_str(), 0, 1, &n), -1);
    EXPECT_EQ(n, 0u);
    EXPECT_NE(access(missing_.c_str(), F_OK), 0);
    EXPECT_EQ(modify_binary_file(data, dir_.c_str(), 0, 1, &n), -1);  // a directory
    EXPECT_EQ(modify_binary_file(nullptr, path_.c_str(), 0, 1, &n), kRetNullArg);
    // /dev/full takes the buffered write and refuses the flush: those bytes
    // never reached the disk.
    n = 99;
    EXPECT_EQ(modify_binary_file(data, "/dev/full", 0, 4, &n), -1);
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(log.contains("modify_binary_file flush of file(/dev/full) failure error:28-"));
    EXPECT_EQ(log.count(kSyncRun), 0u);
}

}  // namespace
