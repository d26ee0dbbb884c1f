#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log_capture.hpp"
#include "process/pub_util.hpp"

namespace {

TEST(WriteToDevice, RefusesBadArguments) {
    LogCapture log;
    uint8_t b = 1;
    EXPECT_EQ(write_to_device(0, &b, 1), -1);
    EXPECT_EQ(write_to_device(-1, &b, 1), -1);
    EXPECT_EQ(write_to_device(5, nullptr, 1), -1);
    EXPECT_EQ(write_to_device(5, &b, 0), -1);
    EXPECT_TRUE(log.contains("fd(0) is not valid."));
    EXPECT_TRUE(log.contains("buf_ptr is null"));
    EXPECT_TRUE(log.contains("buf_len(0) is not valid."));
}

// Waits up to 10 s for the flag; false if it never came.
bool comes_true(const std::atomic<bool>& flag) {
    for (int i = 0; i < 10000 && !flag; ++i) usleep(1000);
    return flag;
}

// A line that never takes another byte: the write waits for room, gives up
// after its second of waiting and says how many bytes it could not send. A
// line whose every write fails (no reader) is given up the same way.
TEST(WriteToDevice, GivesUpOnADescriptorThatStaysFullOrBrokenAndReportsTheUnsentBytes) {
    signal(SIGPIPE, SIG_IGN);
    int p[2];
    ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
    std::vector<uint8_t> fill(65536, 0x55);
    while (write(p[1], fill.data(), fill.size()) > 0 || write(p[1], fill.data(), 1) > 0) {
    }
    LogCapture log;
    uint8_t buf[24] = {};
    std::atomic<bool> done{false};
    int result = -2;
    std::thread writer([&] {
        result = write_to_device(p[1], buf, sizeof(buf));
        done = true;
    });
    bool ended = comes_true(done);
    EXPECT_TRUE(ended) << "the write never gave up";
    if (!ended) close(p[0]);  // lets the stuck write fail
    writer.join();
    EXPECT_EQ(result, 0);  // a time-out looks like success
    const std::string gave_up = "write to device failure (timeout) len_tmp:24, fd:" + std::to_string(p[1]) + ".";
    EXPECT_EQ(log.count(gave_up), 1u);
    if (ended) close(p[0]);  // every write now fails with EPIPE
    EXPECT_EQ(write_to_device(p[1], buf, sizeof(buf)), 0);
    EXPECT_EQ(log.count(gave_up), 2u);
    close(p[1]);
}

// A peer that drains slowly: a non-blocking descriptor that fills up must
// neither lose nor reorder a byte.
TEST(WriteToDevice, WaitsForAFullDescriptorAndDeliversEveryByte) {
    int p[2];
    ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
    std::vector<uint8_t> data(300000);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7 + i / 251);
    std::vector<uint8_t> got;
    std::thread reader([&] {
        uint8_t buf[4096];
        while (got.size() < data.size()) {
            usleep(200);
            ssize_t n = read(p[0], buf, sizeof(buf));
            if (n > 0) got.insert(got.end(), buf, buf + n);
        }
    });
    EXPECT_EQ(write_to_device(p[1], data.data(), static_cast<uint32_t>(data.size())), 0);
    reader.join();
    EXPECT_TRUE(got == data);
    close(p[0]);
    close(p[1]);
}

TEST(ReadLine, ReportsTheEndAndCutsLongLines) {
    FILE* f = tmpfile();
    ASSERT_NE(f, nullptr);
    fputs("short\nabcdefghij", f);
    rewind(f);
    char buf[8];
    int32_t len = -1;
    uint8_t end = 9;
    EXPECT_EQ(read_line(f, buf, sizeof(buf), &len, &end), 0);
    EXPECT_STREQ(buf, "short\n");
    EXPECT_EQ(read_line(f, buf, sizeof(buf), &len, &end), 0);
    EXPECT_STREQ(buf, "abcdef");  // size 8: at most 6 characters
    EXPECT_EQ(len, 6);
    while (read_line(f, buf, sizeof(buf), &len, &end) == 0 && !end) {
    }
    EXPECT_EQ(end, 1);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(read_line(nullptr, buf, sizeof(buf), &len, &end), kRetInvalidParam);
    fclose(f);
}

TEST(HostLog, EachLineOfARecordGetsThePrefixAndLongLinesAreCut) {
    LogCapture log;
    log_dbg("\n    first\n    second");
    std::string pid = std::to_string(getpid());
    std::string prefix = "D/OVTA_AMT(" + pid + "): ";
    EXPECT_TRUE(log.contains(prefix + "\n" + prefix + "    first\n" + prefix + "    second\n"));
    log_err("will exit\r\n");
    EXPECT_TRUE(log.contains("E/OVTA_AMT(" + pid + "): will exit\n"));

    std::string lng(2000, 'z');
    log_dbg("%s", lng.c_str());
    EXPECT_TRUE(log.contains(prefix + std::string(1023, 'z') + "\n"));
    EXPECT_FALSE(log.contains(std::string(1024, 'z')));
}

}  // namespace
