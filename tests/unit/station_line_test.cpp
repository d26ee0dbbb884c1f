// A slot's line in a loop: phones that come (the path appears and opens, or
// a handshake offer arrives) and go (the line hangs up, or a new phone's
// offer), on a pseudo-terminal played by the test behind a symbolic link,
// as a fixture's stable device names are; the handshake offer told apart
// from a frame's head; board numbers per slot from a file.
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <pty.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "pc/os/line.hpp"
#include "pc/station/board_list.hpp"
#include "pc/station/handshake_offer.hpp"
#include "pc/station/phone_line.hpp"
#include "pc/station/station_options.hpp"
#include "process/unique_fd.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(StationLine, HandshakeOfferIsToldApartFromAFrameHead) {
    station::OfferScanner s;
    // A frame of length 127 begins like an offer: its next byte is 00.
    EXPECT_FALSE(s.feed(Bytes{0xAA, 0xBB, 0xCC, 0xDD, 0x7F, 0x00, 0x00, 0x00}));
    EXPECT_FALSE(s.quiet());
    // An offer cut between two reads, followed by the next offer.
    EXPECT_FALSE(s.feed(Bytes{0x01, 0xAA, 0xAA, 0xBB}));
    EXPECT_FALSE(s.feed(Bytes{0xCC, 0xDD, 0x7F}));
    EXPECT_TRUE(s.feed(Bytes{0xAA}));
    // An offer and then silence.
    s.reset();
    EXPECT_FALSE(s.feed(Bytes{0xAA, 0xBB, 0xCC, 0xDD, 0x7F}));
    EXPECT_TRUE(s.quiet());
    EXPECT_FALSE(s.feed(Bytes{0xAA, 0xBB, 0xCC, 0x7F, 0x7F, 0x01}));
    EXPECT_FALSE(s.quiet());
}

class StationLineOnPty : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/ovta-line-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        link_ = dir_ + "/slot1";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    // A new line behind the link: the phone's end stays with the test.
    void plug() {
        int master = -1;
        int slave = -1;
        termios raw{};
        cfmakeraw(&raw);
        ASSERT_EQ(openpty(&master, &slave, nullptr, &raw, nullptr), 0);
        phone_.reset(master);
        char name[128] = {};
        ASSERT_EQ(ttyname_r(slave, name, sizeof(name)), 0);
        close(slave);
        std::filesystem::remove(link_);
        std::filesystem::create_symlink(name, link_);
    }
    void offer() {
        const uint8_t o[] = {0xAA, 0xBB, 0xCC, 0xDD, 0x7F};
        ASSERT_EQ(write(phone_.get(), o, sizeof(o)), 5);
    }

    std::string dir_;
    std::string link_;
    UniqueFd phone_;
    pcos::Stop stop_;
};

TEST_F(StationLineOnPty, PhonesComeAndGoAndTheStopEndsTheWait) {
    station::PhoneLine line(link_, &stop_);
    // The path appears a moment later; the phone's offer starts the plan.
    std::thread plugger([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        plug();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        offer();
    });
    ASSERT_TRUE(line.wait_for_phone());
    plugger.join();
    EXPECT_GE(line.line().native(), 0);
    EXPECT_EQ(line.note(), "the phone offered the handshake");

    // Bytes that are no offer (an answer that came late) do not end the
    // phone; a new phone's offer on the same line does.
    const uint8_t late[] = {0xAA, 0xBB, 0xCC, 0xDD, 0x7F, 0x00, 0x00, 0x00, 0x5A};
    ASSERT_EQ(write(phone_.get(), late, sizeof(late)), static_cast<ssize_t>(sizeof(late)));
    std::thread next([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        offer();
    });
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(line.wait_until_gone());
    next.join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(400)) << "the late bytes ended it";
    EXPECT_EQ(line.note(), "a new phone offered the handshake");
    const int same = line.line().native();
    ASSERT_TRUE(line.wait_for_phone());  // at once, on the line as it is
    EXPECT_EQ(line.line().native(), same);

    // The cable goes: the line hangs up and the path is gone.
    std::filesystem::remove(link_);
    phone_.reset();
    ASSERT_TRUE(line.wait_until_gone());
    EXPECT_EQ(line.line().native(), -1);
    // No phone comes; Ctrl-C ends the wait.
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        stop_.raise();
    });
    EXPECT_FALSE(line.wait_for_phone());
    stopper.join();
}

TEST(StationBoards, FileGivesEachSlotItsNumbersInOrderAndRefusesStrangeLines) {
    char dir[] = "/tmp/ovta-boards-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/boards.txt";
    const std::vector<std::string> devices = {"/dev/ttyACM0", "/dev/ttyACM1"};
    std::ofstream(path) << "# slot or device, board\n1 SN-1\n\n/dev/ttyACM1   SN-2  # second line\n1 SN-3\n";
    station::BoardList list(2);
    std::string error;
    ASSERT_TRUE(station::read_board_file(path, devices, &list, &error)) << error;
    EXPECT_EQ(list.take(1), "SN-1");
    EXPECT_EQ(list.take(2), "SN-2");
    EXPECT_EQ(list.take(1), "SN-3");
    EXPECT_EQ(list.take(1), std::nullopt);
    EXPECT_TRUE(list.empty());
    const std::pair<const char*, std::string> bad[] = {
        {"3 SN-1\n", path + ":1: slot 3 is not one of 1 to 2"},
        {"1 SN-1\n/dev/ttyUSB0 SN-2\n", path + ":2: /dev/ttyUSB0 is no --device of this run"},
        {"1\n", path + ":1: no board number behind 1"},
        {"1 SN 1\n", path + ":1: a line holds a slot or device and one board number"},
    };
    for (const auto& [text, why] : bad) {
        std::ofstream(path) << text;
        station::BoardList l(2);
        EXPECT_FALSE(station::read_board_file(path, devices, &l, &error)) << text;
        EXPECT_EQ(error, why);
    }
    std::filesystem::remove_all(dir);
}

// Where each slot's board number comes from, and the command lines that
// would leave a phone without one.
TEST(StationBoards, CommandLineGivesEverySlotItsNumberOrIsRefused) {
    auto options = [](std::vector<std::string> args, station::Options* opt) {
        std::vector<char*> argv = {const_cast<char*>("ovta-station")};
        for (std::string& a : args) argv.push_back(a.data());
        return station::read_options(static_cast<int>(argv.size()), argv.data(), opt);
    };
    station::Plan plan;
    plan.uses_board = true;
    station::Options opt;
    ASSERT_EQ(options({"p.toml", "--device", "/dev/a", "--device", "/dev/b", "--board", "SN-A", "--board", "SN-B"}, &opt),
              std::nullopt);
    station::BoardList list(2);
    EXPECT_EQ(station::gather_boards(opt, plan, &list), std::nullopt);
    EXPECT_EQ(list.take(2), "SN-B");
    EXPECT_EQ(list.take(1), "SN-A");

    station::Options one;
    EXPECT_EQ(options({"p.toml", "--device", "/dev/a", "--device", "/dev/b", "--board", "SN-A"}, &one),
              "1 --board for 2 devices: one per device");
    station::Options both;
    EXPECT_EQ(options({"p.toml", "--device", "/dev/a", "--board", "SN-A", "--boards", "f"}, &both),
              "--board and --boards together");
    station::Options none;
    ASSERT_EQ(options({"p.toml", "--device", "/dev/a", "--loop"}, &none), std::nullopt);
    EXPECT_TRUE(none.loop);
    station::BoardList empty(1);
    EXPECT_EQ(station::gather_boards(none, plan, &empty),
              "the plan uses {board}: give --board SN per device, --boards FILE or boards = [...]");
    // The plan's list is the fallback; a plan that needs no number needs no list.
    plan.boards = {"SN-P"};
    station::BoardList from_plan(1);
    EXPECT_EQ(station::gather_boards(none, plan, &from_plan), std::nullopt);
    EXPECT_EQ(from_plan.take(1), "SN-P");
    station::Plan reads_it;
    station::BoardList unused(1);
    EXPECT_EQ(station::gather_boards(none, reads_it, &unused), std::nullopt);
    EXPECT_TRUE(unused.empty());
}

}  // namespace
