// ovta-fixture changing phones under a station: the test plays the station on
// the slots' lines. A swap hangs the line up, the path comes back with a
// fresh phone whose stores are empty, and every phone's stores stay where
// DIR/phones.log says. Swaps come on SIGUSR1 (the slot in turn or the ones
// DIR/swap names), on a schedule, and at a command in the middle of a plan;
// an odd phone has an RF table of other bytes.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/wait.h>
#include <termios.h>
#include <thread>

#include "phone_test.hpp"

namespace e2e {
namespace {

namespace fs = std::filesystem;

const char kBoardSet[] = "AA BB CC DD 14 00 00 00 02 00 00 00 57 00 00 00 53 4E 2D 30 30 30 31 00 4E 89 47 A4";
const char kBoardStored[] = "AA BB CC DD 10 00 00 00 02 00 00 00 58 00 00 00 00 00 00 00 59 68 CC 45";
const char kBoardGet[] = "AA BB CC DD 0C 00 00 00 02 00 00 00 55 00 00 00 44 68 78 34";
const char kNoBoard[] = "AA BB CC DD 10 00 00 00 02 00 00 00 56 00 00 00 0A 00 00 00 C0 AA 3C 19";

std::string file_text(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The lines of DIR/phones.log without their time stamps.
std::vector<std::string> events(const std::string& dir) {
    std::vector<std::string> out;
    std::istringstream lines(file_text(dir + "/phones.log"));
    for (std::string line; std::getline(lines, line);) out.push_back(line.substr(line.find(' ') + 1));
    return out;
}

bool has_event(const std::string& dir, const std::string& head) {
    for (const std::string& e : events(dir)) {
        if (e.rfind(head, 0) == 0) return true;
    }
    return false;
}

bool wait_event(const std::string& dir, const std::string& head, std::chrono::milliseconds timeout = 30s) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!has_event(dir, head)) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

class FixtureSwap : public ::testing::Test {
protected:
    void SetUp() override {
        if (!network_ready()) GTEST_SKIP() << network_problem();
        char dir[] = "/tmp/ovta-fixture-test-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }

    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            finish();
        }
        // The fixture and every phone's programs, built with a sanitizer, say so.
        std::vector<std::string> logs = {dir_ + "/fixture.out"};
        std::error_code ec;
        for (const auto& e : fs::recursive_directory_iterator(fixture(), ec)) {
            const std::string name = e.path().filename().string();
            if (name == "agent.log" || name == "wfmgr.log") logs.push_back(e.path().string());
        }
        for (const std::string& log : logs) {
            const std::string text = file_text(log);
            if (text.find("Sanitizer") != std::string::npos || text.find("runtime error:") != std::string::npos) {
                ADD_FAILURE() << "sanitizer report in " << log << ":\n" << text;
            }
        }
        if (HasFailure()) {
            std::cerr << "ovta-fixture's output:\n" << file_text(dir_ + "/fixture.out")
                      << "phones.log:\n" << file_text(dir_ + "/fixture/phones.log");
        }
        fs::remove_all(dir_);
    }

    // ovta-fixture with `options`; its program stays until SIGTERM and
    // writes its arguments to DIR/args.
    void start(const std::vector<std::string>& options) {
        std::vector<std::string> args = {OVTA_BINARY_DIR "/ovta-fixture", "--dir", fixture()};
        args.insert(args.end(), options.begin(), options.end());
        args.insert(args.end(), {"--", "/bin/sh", "-c", "echo \"$@\" > " + dir_ + "/args; exec sleep 600", "sh"});
        pid_ = fork();
        if (pid_ == 0) {
            FILE* out = fopen((dir_ + "/fixture.out").c_str(), "w");
            if (out == nullptr) _exit(127);
            dup2(fileno(out), STDOUT_FILENO);
            dup2(fileno(out), STDERR_FILENO);
            std::vector<char*> argv;
            for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        ASSERT_GT(pid_, 0);
    }

    // Waits for the fixture's end; its exit status.
    int finish() {
        int status = 0;
        const pid_t pid = std::exchange(pid_, -1);
        if (waitpid(pid, &status, 0) != pid) return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string fixture() const { return dir_ + "/fixture"; }
    std::string line(int slot) const { return fixture() + "/slot-" + std::to_string(slot) + "/tty"; }
    std::string root(int slot, int phone) const {
        return fixture() + "/slot-" + std::to_string(slot) + "/phone-" + std::to_string(phone);
    }

    // Opens a slot's line as a station does, raw.
    UniqueFd open_line(int slot) {
        UniqueFd fd(open(line(slot).c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        EXPECT_TRUE(fd.valid()) << line(slot) << ": " << strerror(errno);
        termios tio{};
        if (fd.valid() && tcgetattr(fd.get(), &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(fd.get(), TCSANOW, &tio);
        }
        return fd;
    }

    void exchange(int fd, const char* request, const char* answer) {
        ASSERT_TRUE(sandbox::write_all(fd, hex(request), kWait));
        EXPECT_EQ(sandbox::read_exact(fd, kPreResponse.size(), kWait), kPreResponse);
        const sandbox::Bytes want = hex(answer);
        EXPECT_EQ(sandbox::read_exact(fd, want.size(), kWait), want);
    }

    // Whether the line hangs up within the wait, without a byte before it.
    static bool hangs_up(int fd) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kWait).count())) <= 0) return false;
        uint8_t b = 0;
        return (p.revents & POLLHUP) != 0 && read(fd, &b, 1) <= 0;
    }

    std::string dir_;
    pid_t pid_ = -1;
};

TEST_F(FixtureSwap, SignalSwapHangsUpTheLineAndAFreshPhoneComesWithEmptyStores) {
    ASSERT_NO_FATAL_FAILURE(start({"--phones", "1", "--swap-gap", "0.2", "--odd-phone", "1:2"}));
    ASSERT_TRUE(wait_event(fixture(), "on 1 1 " + root(1, 1) + " /dev/pts/"));
    for (int i = 0; i < 500 && !fs::exists(dir_ + "/args"); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(file_text(dir_ + "/args"), "--device " + line(1) + "\n");

    UniqueFd first = open_line(1);
    ASSERT_TRUE(first.valid());
    exchange(first.get(), kBoardSet, kBoardStored);

    // No DIR/swap: the slot in turn, the only one.
    kill(pid_, SIGUSR1);
    EXPECT_TRUE(hangs_up(first.get()));
    ASSERT_TRUE(wait_event(fixture(), "on 1 2 " + root(1, 2) + " /dev/pts/"));
    EXPECT_EQ(events(fixture())[1], "off 1 1 " + root(1, 1) + " signal");
    // The first phone's stores stay; its agent has ended and left its log.
    EXPECT_EQ(file_text(root(1, 1) + "/amt/board_no.txt"), "SN-0001");
    EXPECT_NE(file_text(root(1, 1) + "/agent.log").find("handshake success"), std::string::npos);

    // The second phone is the odd one: its RF table holds other bytes.
    EXPECT_EQ(events(fixture())[2].substr(events(fixture())[2].size() - 4), " odd");
    EXPECT_EQ(file_text(root(1, 1) + "/amt/rf/rf_table_1.bin").substr(0, 3), std::string("\x00\x01\x02", 3));
    EXPECT_EQ(file_text(root(1, 2) + "/amt/rf/rf_table_1.bin").substr(0, 3), "\xFF\xFE\xFD");

    // The same path, a fresh agent, no board number.
    UniqueFd second = open_line(1);
    ASSERT_TRUE(second.valid());
    exchange(second.get(), kBoardGet, kNoBoard);
    EXPECT_FALSE(fs::exists(root(1, 2) + "/amt/board_no.txt"));

    kill(pid_, SIGTERM);
    EXPECT_EQ(finish(), 128 + SIGTERM);
    EXPECT_EQ(events(fixture()).back(), "off 1 2 " + root(1, 2) + " end");
    EXPECT_FALSE(fs::exists(line(1)));
    EXPECT_EQ(file_text(root(1, 1) + "/amt/board_no.txt"), "SN-0001");
}

TEST_F(FixtureSwap, PulledAtACommandOnScheduleAndBySwapFileEachPhoneOnce) {
    // Slot 1 changes phones every second; slot 2 only when pulled or named.
    ASSERT_NO_FATAL_FAILURE(start({"--phones", "2", "--swap-every", "1,1000", "--swap-gap", "0.1", "--pull-on", "2:85"}));
    ASSERT_TRUE(wait_event(fixture(), "on 2 1 "));

    // In the middle of a plan: the board number is set, the read is pulled.
    UniqueFd first = open_line(2);
    ASSERT_TRUE(first.valid());
    exchange(first.get(), kBoardSet, kBoardStored);
    ASSERT_TRUE(sandbox::write_all(first.get(), hex(kBoardGet), kWait));
    EXPECT_TRUE(hangs_up(first.get()));
    ASSERT_TRUE(wait_event(fixture(), "on 2 2 "));
    EXPECT_TRUE(has_event(fixture(), "off 2 1 " + root(2, 1) + " command 85"));
    EXPECT_EQ(file_text(root(2, 1) + "/amt/board_no.txt"), "SN-0001");

    // The next phone answers the same command: a pull happens once.
    UniqueFd second = open_line(2);
    ASSERT_TRUE(second.valid());
    exchange(second.get(), kBoardGet, kNoBoard);

    ASSERT_TRUE(wait_event(fixture(), "on 1 3 "));
    EXPECT_TRUE(has_event(fixture(), "off 1 1 " + root(1, 1) + " schedule"));
    EXPECT_TRUE(has_event(fixture(), "off 1 2 " + root(1, 2) + " schedule"));

    std::ofstream(fixture() + "/swap") << "2\n";
    kill(pid_, SIGUSR1);
    EXPECT_TRUE(hangs_up(second.get()));
    ASSERT_TRUE(wait_event(fixture(), "on 2 3 "));
    EXPECT_TRUE(has_event(fixture(), "off 2 2 " + root(2, 2) + " signal"));
    EXPECT_FALSE(fs::exists(fixture() + "/swap"));

    kill(pid_, SIGTERM);
    EXPECT_EQ(finish(), 128 + SIGTERM);
    // Every phone had a tree of its own, and every one that came on went off.
    std::set<std::string> on;
    std::set<std::string> off;
    for (const std::string& e : events(fixture())) {
        std::istringstream words(e);
        std::string what, slot, phone, tree;
        words >> what >> slot >> phone >> tree;
        EXPECT_EQ(tree, root(std::stoi(slot), std::stoi(phone))) << e;
        EXPECT_TRUE((what == "on" ? on : off).insert(tree).second) << "twice: " << e;
    }
    EXPECT_EQ(on, off);
    EXPECT_GE(on.size(), 6u);
}

TEST(FixtureOptions, BadOptionsAreRefusedWithTheUsage) {
    for (const std::vector<std::string>& bad :
         {std::vector<std::string>{"--phones", "0"}, {"--swap-every", "0"}, {"--phones", "2", "--pull-on", "3:85"}, {"--swap-gap", "x"}}) {
        std::string command = OVTA_BINARY_DIR "/ovta-fixture";
        for (const std::string& a : bad) command += " " + a;
        command += " -- true 2>&1";
        FILE* p = popen(command.c_str(), "r");
        ASSERT_NE(p, nullptr);
        char buf[4096];
        const size_t n = fread(buf, 1, sizeof(buf), p);
        const int status = pclose(p);
        EXPECT_EQ(WEXITSTATUS(status), 2) << command;
        EXPECT_NE(std::string(buf, n).find("usage: ovta-fixture"), std::string::npos) << command;
    }
}

}  // namespace
}  // namespace e2e
