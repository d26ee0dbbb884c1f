// The Android half of the log, linked with Android's liblog (Debian's build,
// which on a host writes each record to standard error as
// "TAG P MM-DD HH:MM:SS PID TID text"). A phone's logd keeps debug records;
// a host's liblog drops those below INFO unless its minimum priority is
// lowered, so the test lowers it to DEBUG as on the phone.
#include <android/log.h>
#include <cerrno>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "platform/platform.hpp"
#include "tests/unit/log_capture.hpp"

namespace {

struct Record {
    std::string tag;
    char priority;
    std::string text;
};

// The records of this process in the captured log, one per line.
std::vector<Record> records(LogCapture& log) {
    static const std::regex kLine(R"(^(\S+) ([VDIWEF]) \d\d-\d\d \d\d:\d\d:\d\d +(\d+) +\d+ (.*)$)");
    std::vector<Record> out;
    std::istringstream in(log.text());
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        if (std::regex_match(line, m, kLine) && m[3] == std::to_string(getpid())) {
            out.push_back({m[1], m[2].str()[0], m[4]});
        }
    }
    return out;
}

bool has(const std::vector<Record>& all, const std::string& tag, char priority, const std::string& text) {
    for (const Record& r : all) {
        if (r.tag == tag && r.priority == priority && r.text == text) return true;
    }
    return false;
}

class AndroidLog : public ::testing::Test {
protected:
    void SetUp() override { __android_log_set_minimum_priority(ANDROID_LOG_DEBUG); }
};

TEST_F(AndroidLog, RecordsReachLiblogWithTagAndPriorityDebugIncludedAndTextNeverAFormat) {
    LogCapture log;
    platform::log_write(platform::kLogDebug, "OVTA_AMT", "handle_start success\n");
    platform::log_write(platform::kLogError, "OVTA_AMT", "open_all_device failure: -118");
    platform::log_write(platform::kLogDebug, "OVTA_AMT", "100% of %s and %n stay text");
    auto all = records(log);
    EXPECT_TRUE(has(all, "OVTA_AMT", 'D', "handle_start success")) << log.text();
    EXPECT_TRUE(has(all, "OVTA_AMT", 'E', "open_all_device failure: -118")) << log.text();
    EXPECT_TRUE(has(all, "OVTA_AMT", 'D', "100% of %s and %n stay text")) << log.text();
}

// The screen's lines pass a null tag, and the crash path writes through the
// async-safe road: liblog puts the program's name in the tag's place.
TEST_F(AndroidLog, NullTagBecomesTheProgramNameOnBothRoads) {
    LogCapture log;
    platform::log_write(platform::kLogDebug, nullptr, "fb open failed!\n");
    platform::log_write_async_safe(platform::kLogError, nullptr, "caught signal 11");
    platform::log_write_async_safe(platform::kLogDebug, "OVTA_AMT", "will exit");
    auto all = records(log);
    const std::string self = program_invocation_short_name;
    EXPECT_TRUE(has(all, self, 'D', "fb open failed!")) << log.text();
    EXPECT_TRUE(has(all, self, 'E', "caught signal 11")) << log.text();
    EXPECT_TRUE(has(all, "OVTA_AMT", 'D', "will exit")) << log.text();
}

}  // namespace
