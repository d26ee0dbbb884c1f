// One slot against a phone played by the test on a pseudo-terminal: a line
// that hangs up fails the slot at its step and no verdict is attempted, and
// the stop descriptor (Ctrl-C) ends a wait for an answer at once. Frames are
// literal bytes worked out by hand.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "pc/lib/hex_text.hpp"
#include "pc/station/slot_runner.hpp"
#include "process/unique_fd.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const char* text) { return *tools::parse_hex(text); }

const Bytes kPreResponse = hex("AA BB CC DD 08 00 00 00 02 02 00 00 76 4A EE 1D");
// Command 45, module 0, and response 46 with version "V1".
const Bytes kVersion = hex("AA BB CC DD 10 00 00 00 02 00 00 00 2D 00 00 00 00 00 00 00 AE DD BB F6");
const Bytes kVersionV1 =
    hex("AA BB CC DD 16 00 00 00 02 00 00 00 2E 00 00 00 00 00 00 00 00 00 00 00 56 31 3A 8D EA EB");
// Command 137.
const Bytes kCard = hex("AA BB CC DD 0C 00 00 00 02 00 00 00 89 00 00 00 7A 54 3C 34");

// Reads exactly n bytes from the phone's end, waiting up to 5 s.
Bytes phone_reads(int fd, size_t n) {
    Bytes out;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (out.size() < n && std::chrono::steady_clock::now() < deadline) {
        uint8_t buf[256];
        ssize_t got = read(fd, buf, std::min(sizeof(buf), n - out.size()));
        if (got > 0) {
            out.insert(out.end(), buf, buf + got);
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    return out;
}

class StationSlot : public ::testing::Test {
protected:
    void SetUp() override {
        int master = -1;
        int slave = -1;
        termios raw{};
        cfmakeraw(&raw);
        ASSERT_EQ(openpty(&master, &slave, nullptr, &raw, nullptr), 0);
        phone_.reset(master);
        fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
        char name[128] = {};
        ASSERT_EQ(ttyname_r(slave, name, sizeof(name)), 0);
        close(slave);
        device_ = name;
        stop_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    }

    station::Plan plan(std::vector<station::Command> commands) {
        station::Plan p;
        p.station = 12;
        p.verdict = true;
        for (station::Command c : commands) {
            station::Step s;
            s.command = c;
            s.name = station::command_name(c);
            s.timeout_ms = 5000;
            p.steps.push_back(s);
        }
        return p;
    }

    station::SlotRecord run(const station::Plan& p) {
        station::SlotStatus row;
        row.device = device_;
        station::StatusBoard board({row});
        station::SlotSetup setup{1, device_, "", "2026-11-24", stop_.get()};
        return station::run_slot(p, setup, board);
    }

    UniqueFd phone_;
    UniqueFd stop_;
    std::string device_;
};

TEST_F(StationSlot, LineThatHangsUpFailsItsStepAndGetsNoVerdict) {
    station::Plan p = plan({station::Command::kVersion, station::Command::kCard, station::Command::kVersion});
    p.steps[0].expect.equals = "V1";
    std::thread phone([&] {
        EXPECT_EQ(phone_reads(phone_.get(), kVersion.size()), kVersion);
        Bytes answer = kPreResponse;
        answer.insert(answer.end(), kVersionV1.begin(), kVersionV1.end());
        EXPECT_EQ(write(phone_.get(), answer.data(), answer.size()), static_cast<ssize_t>(answer.size()));
        EXPECT_EQ(phone_reads(phone_.get(), kCard.size()), kCard);
        phone_.reset();  // the cable goes
    });
    station::SlotRecord r = run(p);
    phone.join();
    EXPECT_FALSE(r.passed);
    EXPECT_FALSE(r.stopped);
    EXPECT_EQ(r.failed_step, "card");
    EXPECT_EQ(r.reason.rfind("the line failed or hung up", 0), 0u) << r.reason;
    ASSERT_EQ(r.steps.size(), 3u);  // no verdict step behind them
    EXPECT_EQ(r.steps[0].verdict, station::StepVerdict::kPass);
    EXPECT_EQ(r.steps[0].measured, "V1");
    EXPECT_EQ(r.steps[1].verdict, station::StepVerdict::kFail);
    EXPECT_EQ(r.steps[1].answer["outcome"], "line-failed");
    EXPECT_EQ(r.steps[2].verdict, station::StepVerdict::kNotRun);
}

TEST_F(StationSlot, StopEndsTheWaitForAnAnswerAtOnce) {
    station::Plan p = plan({station::Command::kCard, station::Command::kVersion});
    p.steps[0].timeout_ms = 60000;
    std::thread phone([&] {
        // The command came; the phone keeps silent, and the operator presses Ctrl-C.
        EXPECT_EQ(phone_reads(phone_.get(), kCard.size()), kCard);
        const uint64_t one = 1;
        EXPECT_EQ(write(stop_.get(), &one, sizeof(one)), 8);
    });
    const auto start = std::chrono::steady_clock::now();
    station::SlotRecord r = run(p);
    phone.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30)) << "the stop did not end the wait";
    EXPECT_TRUE(r.stopped);
    EXPECT_FALSE(r.passed);
    ASSERT_EQ(r.steps.size(), 2u);  // no verdict after a stop
    EXPECT_EQ(r.steps[0].verdict, station::StepVerdict::kStopped);
    EXPECT_EQ(r.steps[1].verdict, station::StepVerdict::kNotRun);
    EXPECT_EQ(r.steps[1].reason, "stopped before this step");
}

}  // namespace
