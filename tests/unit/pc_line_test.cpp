// The Linux half of the PC's line (pc/os): a pseudo-terminal plays the
// phone's end. Bytes come as they were written, a raised stop ends a wait
// at once, a line whose other end closes reads as failed, and a port pattern
// lists the ports it matches.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <pty.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "pc/os/line.hpp"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

pcos::Deadline in(std::chrono::milliseconds ms) { return std::chrono::steady_clock::now() + ms; }

class PcLine : public ::testing::Test {
protected:
    void SetUp() override {
        int slave = -1;
        ASSERT_EQ(openpty(&master_, &slave, nullptr, nullptr, nullptr), 0);
        const std::string name = ttyname(slave);
        close(slave);
        std::string error;
        line_ = pcos::Line::open(name, &error);
        ASSERT_TRUE(line_.valid()) << error;
    }
    void TearDown() override {
        if (master_ >= 0) close(master_);
    }
    int master_ = -1;
    pcos::Line line_;
};

TEST_F(PcLine, EveryByteValueComesAsWrittenBothWays) {
    Bytes all(256);
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i);
    ASSERT_TRUE(line_.write_all(all, in(5s)));
    Bytes got(256);
    size_t n = 0;
    while (n < got.size()) {
        ssize_t r = read(master_, got.data() + n, got.size() - n);
        ASSERT_GT(r, 0);
        n += static_cast<size_t>(r);
    }
    EXPECT_EQ(got, all);  // raw: no CR added, no byte taken as a control character

    ASSERT_EQ(write(master_, all.data(), all.size()), 256);
    Bytes back;
    uint8_t buf[64];  // smaller than what waits: each read takes its part
    while (back.size() < all.size()) {
        long r = line_.read_some(buf, in(5s));
        ASSERT_GT(r, 0);
        back.insert(back.end(), buf, buf + r);
    }
    EXPECT_EQ(back, all);
}

TEST_F(PcLine, SilenceIsATimeoutAndARaisedStopEndsTheWaitAtOnce) {
    uint8_t buf[16];
    EXPECT_EQ(line_.read_some(buf, in(50ms)), pcos::kReadTimeout);

    pcos::Stop stop;
    ASSERT_TRUE(stop.valid());
    EXPECT_FALSE(stop.raised());
    std::thread raiser([&] {
        std::this_thread::sleep_for(50ms);
        stop.raise();
    });
    // Were the stop not watched, the read would end at its deadline, as a timeout.
    EXPECT_EQ(line_.read_some(buf, in(60s), &stop), pcos::kReadStopped);
    raiser.join();
    EXPECT_TRUE(stop.raised());

    // A borrowed stop sees the raise of its owner and leaves it open.
    {
        pcos::Stop borrowed = pcos::Stop::borrow(stop.native());
        EXPECT_TRUE(borrowed.raised());
    }
    EXPECT_TRUE(stop.raised());
}

TEST_F(PcLine, OtherEndThatClosesReadsAsAFailedLine) {
    close(master_);
    master_ = -1;
    uint8_t buf[16];
    EXPECT_EQ(line_.read_some(buf, in(5s)), pcos::kReadFailed);
}

TEST(PcLineNames, PatternListsTheMatchingPortsSortedAndAPlainFileIsNoPort) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::path(::testing::TempDir()) / ("pc_line_names_" + std::to_string(getpid()));
    fs::create_directories(dir);
    for (const char* name : {"ttyACM1", "ttyACM0", "ttyUSB0"}) std::ofstream(dir / name) << "x";
    EXPECT_TRUE(pcos::is_line_pattern((dir / "ttyACM*").string()));
    EXPECT_FALSE(pcos::is_line_pattern((dir / "ttyACM0").string()));
    EXPECT_EQ(pcos::list_lines((dir / "ttyACM*").string()),
              (std::vector<std::string>{(dir / "ttyACM0").string(), (dir / "ttyACM1").string()}));
    EXPECT_TRUE(pcos::list_lines((dir / "ttyS*").string()).empty());

    std::string error;
    pcos::Line line = pcos::Line::open((dir / "ttyUSB0").string(), &error);
    EXPECT_FALSE(line.valid());
    EXPECT_NE(error.find("is no terminal"), std::string::npos) << error;
    fs::remove_all(dir);
}

}  // namespace
