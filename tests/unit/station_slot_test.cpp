// One slot against a phone played by the test on a pseudo-terminal: a line
// that hangs up fails the slot at its step and no verdict is attempted, the
// stop descriptor (Ctrl-C) ends a wait for an answer at once, a phone that
// answers a step wrongly still gets its verdict, and the record keeps what
// the phone holds after the verdict. Frames are literal bytes worked out by
// hand.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "pc/lib/hex_text.hpp"
#include "pc/os/line.hpp"
#include "pc/station/records.hpp"
#include "pc/station/slot_runner.hpp"
#include "pc/station/verdict.hpp"
#include "process/unique_fd.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const char* text) { return *tools::parse_hex(text); }

const Bytes kPreResponse = hex("AA BB CC DD 08 00 00 00 02 02 00 00 76 4A EE 1D");
// Command 45, module 0, and response 46 with version "V1".
const Bytes kVersion = hex("AA BB CC DD 10 00 00 00 02 00 00 00 2D 00 00 00 00 00 00 00 AE DD BB F6");
const Bytes kVersionV1 =
    hex("AA BB CC DD 16 00 00 00 02 00 00 00 2E 00 00 00 00 00 00 00 00 00 00 00 56 31 3A 8D EA EB");
// Command 137, and response 138: 16384 KiB, the same with its CRC's last
// byte flipped, and refused (result 10).
const Bytes kCard = hex("AA BB CC DD 0C 00 00 00 02 00 00 00 89 00 00 00 7A 54 3C 34");
const Bytes kCardOk = hex("AA BB CC DD 14 00 00 00 02 00 00 00 8A 00 00 00 00 00 00 00 00 40 00 00 99 EC 84 69");
const Bytes kCardBadCrc = hex("AA BB CC DD 14 00 00 00 02 00 00 00 8A 00 00 00 00 00 00 00 00 40 00 00 99 EC 84 96");
const Bytes kCardRefused = hex("AA BB CC DD 14 00 00 00 02 00 00 00 8A 00 00 00 0A 00 00 00 00 00 00 00 6A F9 AE 91");
// Command 91 for station 12: result 1 "pass", result 0 "fail: card".
const Bytes kVerdictPass =
    hex("AA BB CC DD 19 00 00 00 02 00 00 00 5B 00 00 00 0C 00 00 00 01 00 00 00 70 61 73 73 00 17 F7 FE 9D");
const Bytes kVerdictFailCard = hex(
    "AA BB CC DD 1F 00 00 00 02 00 00 00 5B 00 00 00 0C 00 00 00 00 00 00 00 66 61 69 6C 3A 20 63 61 72 64 00 3F CF C7 40");
// Response 92: stored, refused.
const Bytes kStored = hex("AA BB CC DD 10 00 00 00 02 00 00 00 5C 00 00 00 00 00 00 00 EE 03 1A 6A");
const Bytes kNotStored = hex("AA BB CC DD 10 00 00 00 02 00 00 00 5C 00 00 00 0A 00 00 00 E4 23 8A FB");
// Command 89 for station 12; response 90 with result 1 "pass", and result 0 "fail: card".
const Bytes kReadBack = hex("AA BB CC DD 10 00 00 00 02 00 00 00 59 00 00 00 0C 00 00 00 C4 46 03 10");
const Bytes kHoldsPass =
    hex("AA BB CC DD 18 00 00 00 02 00 00 00 5A 00 00 00 00 00 00 00 01 00 00 00 70 61 73 73 84 76 B5 69");
const Bytes kHoldsFailCard = hex(
    "AA BB CC DD 1E 00 00 00 02 00 00 00 5A 00 00 00 00 00 00 00 00 00 00 00 66 61 69 6C 3A 20 63 61 72 64 10 19 16 BA");
// Command 85 and response 86 with "SN-0042".
const Bytes kBoardGet = hex("AA BB CC DD 0C 00 00 00 02 00 00 00 55 00 00 00 44 68 78 34");
const Bytes kBoardIs =
    hex("AA BB CC DD 17 00 00 00 02 00 00 00 56 00 00 00 00 00 00 00 53 4E 2D 30 30 34 32 31 AF F2 91");
// Command 63, table 1, A0 A1 at 0 and A2 A3 at 2; response 64 stored and refused.
const Bytes kSlice1 = hex(
    "AA BB CC DD 1A 00 00 00 02 00 00 00 3F 00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 A0 A1 71 95 98 A1");
const Bytes kSlice2 = hex(
    "AA BB CC DD 1A 00 00 00 02 00 00 00 3F 00 00 00 01 00 00 00 02 00 00 00 02 00 00 00 A2 A3 5F 9C BF C3");
const Bytes kSliceStored = hex("AA BB CC DD 10 00 00 00 02 00 00 00 40 00 00 00 00 00 00 00 68 00 8C BF");
const Bytes kSliceRefused = hex("AA BB CC DD 10 00 00 00 02 00 00 00 40 00 00 00 0A 00 00 00 62 20 1C 2E");
// Command 91, result 0 "fail: rf write".
const Bytes kVerdictFailRf = hex(
    "AA BB CC DD 23 00 00 00 02 00 00 00 5B 00 00 00 0C 00 00 00 00 00 00 00 66 61 69 6C 3A 20 72 66 20 77 72 69 74 65 "
    "00 3D A6 AC CC");

// Reads exactly n bytes from the phone's end, waiting up to 5 s.
Bytes phone_reads(int fd, size_t n, std::chrono::milliseconds wait = std::chrono::seconds(5)) {
    Bytes out;
    const auto deadline = std::chrono::steady_clock::now() + wait;
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

    station::SlotRecord run(const station::Plan& p, bool read_board = false) {
        station::SlotStatus row;
        row.device = device_;
        station::StatusBoard board({row});
        station::SlotSetup setup{1, device_, "", "2026-11-24", &stop_};
        setup.read_board = read_board;
        return station::run_slot(p, setup, board);
    }

    // The phone's part: takes the frame it expects, answers with the
    // pre-response and `answer` (nothing when empty).
    void phone_takes(const Bytes& frame, const Bytes& answer) {
        EXPECT_EQ(tools::to_hex(phone_reads(phone_.get(), frame.size())), tools::to_hex(frame));
        Bytes out = kPreResponse;
        out.insert(out.end(), answer.begin(), answer.end());
        EXPECT_EQ(write(phone_.get(), out.data(), out.size()), static_cast<ssize_t>(out.size()));
    }

    UniqueFd phone_;
    pcos::Stop stop_;
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
        stop_.raise();
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

// The plan's card step is refused: the phone still talks, so it is told
// "fail: card", and the record keeps what the phone holds afterwards.
TEST_F(StationSlot, PhoneThatRefusesAStepGetsTheFailVerdictAndTheRecordKeepsWhatItHolds) {
    station::Plan p = plan({station::Command::kCard, station::Command::kVersion});
    std::thread phone([&] {
        phone_takes(kCard, kCardRefused);
        phone_takes(kVerdictFailCard, kStored);
        phone_takes(kReadBack, kHoldsFailCard);
    });
    station::SlotRecord r = run(p);
    phone.join();
    EXPECT_FALSE(r.passed);
    EXPECT_FALSE(r.unknown);
    EXPECT_EQ(station::slot_verdict_name(r), std::string("fail"));
    EXPECT_EQ(r.failed_step, "card");
    ASSERT_EQ(r.steps.size(), 3u);
    EXPECT_EQ(r.steps[0].answer["outcome"], "refused");
    EXPECT_EQ(r.steps[1].verdict, station::StepVerdict::kNotRun);
    EXPECT_EQ(r.steps[2].name, "verdict");
    EXPECT_EQ(r.steps[2].verdict, station::StepVerdict::kPass);  // the fail verdict was stored
    EXPECT_EQ(r.stored["written"], true);
    EXPECT_EQ(r.stored["result"], 0);
    EXPECT_EQ(r.stored["description"], "fail: card");
}

// A malformed answer (bad CRC) is a phone that talks, not a silent one: the
// verdict is still written. The phone then refuses the verdict: the record
// still names the first failed step and its reason, not the verdict.
TEST_F(StationSlot, MalformedAnswerStillGetsAVerdictAndARefusedVerdictKeepsTheFirstFailure) {
    station::Plan p = plan({station::Command::kCard});
    std::thread phone([&] {
        phone_takes(kCard, kCardBadCrc);
        phone_takes(kVerdictFailCard, kNotStored);
        phone_takes(kReadBack, kHoldsPass);  // an earlier run's pass is still there
    });
    station::SlotRecord r = run(p);
    phone.join();
    EXPECT_EQ(r.failed_step, "card");
    EXPECT_EQ(r.steps[0].answer["outcome"], "malformed");
    EXPECT_EQ(r.reason, r.steps[0].reason);
    EXPECT_EQ(r.reason.find("within"), std::string::npos) << r.reason;  // not reported as silence
    ASSERT_EQ(r.steps.size(), 2u);
    EXPECT_EQ(r.steps[1].verdict, station::StepVerdict::kFail);
    // The phone holds pass, the plan failed: neither pass nor fail.
    EXPECT_TRUE(r.unknown);
    EXPECT_FALSE(r.passed);
    EXPECT_EQ(r.stored["written"], false);
    EXPECT_EQ(r.stored["result"], 1);
}

// With a fresh store the verdict's answer comes only after the store's
// two-second creation wait: far beyond the plan's 300 ms, within the
// verdict's own wait. Without a board number the record takes the phone's.
TEST_F(StationSlot, VerdictWaitsOutTheStoreCreationBeyondThePlanTime) {
    station::Plan p = plan({station::Command::kCard});
    p.steps[0].timeout_ms = 300;
    p.verdict_timeout_ms = station::verdict_wait_ms(300, 300);
    EXPECT_EQ(p.verdict_timeout_ms, 2300u);
    std::thread phone([&] {
        phone_takes(kBoardGet, kBoardIs);
        phone_takes(kCard, kCardOk);
        EXPECT_EQ(tools::to_hex(phone_reads(phone_.get(), kVerdictPass.size())), tools::to_hex(kVerdictPass));
        EXPECT_EQ(write(phone_.get(), kPreResponse.data(), kPreResponse.size()), 16);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        EXPECT_EQ(write(phone_.get(), kStored.data(), kStored.size()), static_cast<ssize_t>(kStored.size()));
        phone_takes(kReadBack, kHoldsPass);
    });
    station::SlotRecord r = run(p, true);
    phone.join();
    EXPECT_TRUE(r.passed) << r.reason;
    EXPECT_EQ(r.board, "SN-0042");
    EXPECT_EQ(r.steps.size(), 2u);  // the board read is no step of the plan
    EXPECT_EQ(r.stored["result"], 1);
    EXPECT_EQ(r.stored["description"], "pass");
}

// The verdict was stored, then the line hung up before the read back: the
// phone holds what it said it stored, and so does the record.
TEST_F(StationSlot, PhoneThatDiesBetweenVerdictAndReadBackKeepsTheStoredVerdict) {
    station::Plan p = plan({station::Command::kCard});
    std::thread phone([&] {
        phone_takes(kCard, kCardOk);
        phone_takes(kVerdictPass, kStored);
        EXPECT_EQ(tools::to_hex(phone_reads(phone_.get(), kReadBack.size())), tools::to_hex(kReadBack));
        phone_.reset();
    });
    station::SlotRecord r = run(p);
    phone.join();
    EXPECT_TRUE(r.passed) << r.reason;
    EXPECT_EQ(r.stored["written"], true);
    EXPECT_FALSE(r.stored.contains("result"));
    EXPECT_EQ(r.stored["read_back"]["answer"]["outcome"], "line-failed");
}

// The verdict's answer never comes: unknown, not pass and not fail, and
// nothing is read back from a phone that does not answer.
TEST_F(StationSlot, UnansweredVerdictIsUnknownAndNotPassed) {
    station::Plan p = plan({station::Command::kCard});
    p.verdict_timeout_ms = 400;
    std::thread phone([&] {
        phone_takes(kCard, kCardOk);
        phone_takes(kVerdictPass, {});
        EXPECT_TRUE(phone_reads(phone_.get(), 1, std::chrono::milliseconds(1000)).empty()) << "something after the unanswered verdict";
    });
    station::SlotRecord r = run(p);
    phone.join();
    EXPECT_TRUE(r.unknown);
    EXPECT_FALSE(r.passed);
    EXPECT_EQ(station::slot_verdict_name(r), std::string("unknown"));
    EXPECT_EQ(r.failed_step, "verdict");
    EXPECT_NE(r.reason.find("within 400 ms"), std::string::npos) << r.reason;
    EXPECT_TRUE(r.stored["written"].is_null());
    EXPECT_FALSE(r.stored.contains("read_back"));
}

// An rf write whose second slice is refused wrote only the first: the
// record counts 2 bytes, and the phone, which answered, gets its verdict.
TEST_F(StationSlot, RefusedWriteSliceIsNotCountedAsWritten) {
    station::Plan p = plan({station::Command::kRfWrite});
    station::Step& w = p.steps[0];
    w.table = 1;
    w.offset = 0;
    w.len = 4;
    w.slice = 2;
    w.data = {0xA0, 0xA1, 0xA2, 0xA3};
    std::thread phone([&] {
        phone_takes(kSlice1, kSliceStored);
        phone_takes(kSlice2, kSliceRefused);
        phone_takes(kVerdictFailRf, kStored);
        phone_takes(kReadBack, kHoldsFailCard);
    });
    station::SlotRecord r = run(p);
    phone.join();
    EXPECT_EQ(r.failed_step, "rf write");
    EXPECT_EQ(r.steps[0].answer["outcome"], "refused");
    EXPECT_EQ(r.steps[0].answer["bytes"], 2);
    EXPECT_FALSE(r.passed);
    EXPECT_FALSE(r.unknown);
}

// Every step passed, the phone refuses the verdict and still holds its
// fresh 0: the record says fail at the verdict, with the refusal.
TEST_F(StationSlot, RefusedVerdictAfterAPassedPlanIsAFailAtTheVerdict) {
    station::Plan p = plan({station::Command::kCard});
    std::thread phone([&] {
        phone_takes(kCard, kCardOk);
        phone_takes(kVerdictPass, kNotStored);
        phone_takes(kReadBack, kHoldsFailCard);
    });
    station::SlotRecord r = run(p);
    phone.join();
    EXPECT_FALSE(r.passed);
    EXPECT_FALSE(r.unknown);
    EXPECT_EQ(r.failed_step, "verdict");
    EXPECT_NE(r.reason.find("refused"), std::string::npos) << r.reason;
    EXPECT_NE(r.reason.find("the phone holds result 0"), std::string::npos) << r.reason;
    EXPECT_EQ(r.stored["written"], false);
    EXPECT_EQ(r.stored["result"], 0);
}

// The record's verdict from what the write's answer and the read back said.
TEST(StationVerdict, RecordNeverSaysPassUnlessThePhoneHoldsIt) {
    using station::SlotVerdict;
    using tools::Outcome;
    struct Case {
        bool plan_passed;
        Outcome write;
        std::optional<uint32_t> held;
        SlotVerdict want;
    };
    const Case cases[] = {
        {true, Outcome::kAccepted, 1u, SlotVerdict::kPass},
        {true, Outcome::kAccepted, 0u, SlotVerdict::kFail},       // stored, yet the phone holds 0
        {true, Outcome::kAccepted, std::nullopt, SlotVerdict::kPass},  // stored; the read back was lost
        {true, Outcome::kRefused, 0u, SlotVerdict::kFail},
        {true, Outcome::kRefused, std::nullopt, SlotVerdict::kUnknown},
        {true, Outcome::kMalformed, 1u, SlotVerdict::kPass},
        {true, Outcome::kMalformed, std::nullopt, SlotVerdict::kUnknown},
        {true, Outcome::kPreResponseOnly, std::nullopt, SlotVerdict::kUnknown},
        {true, Outcome::kNothing, std::nullopt, SlotVerdict::kUnknown},
        {true, Outcome::kLineFailed, std::nullopt, SlotVerdict::kUnknown},
        {false, Outcome::kAccepted, 0u, SlotVerdict::kFail},
        {false, Outcome::kAccepted, std::nullopt, SlotVerdict::kFail},
        {false, Outcome::kRefused, 1u, SlotVerdict::kUnknown},  // an earlier pass is still there
        {false, Outcome::kAccepted, 1u, SlotVerdict::kUnknown},
        {false, Outcome::kNothing, std::nullopt, SlotVerdict::kUnknown},
    };
    for (const Case& c : cases) {
        const station::VerdictCall call = station::decide_verdict({c.plan_passed, c.write, c.held});
        EXPECT_EQ(call.verdict, c.want) << c.plan_passed << " " << tools::outcome_name(c.write) << " "
                                        << (c.held ? std::to_string(*c.held) : "none");
        // A reason whenever the record's verdict is not the plan's own.
        const bool own = call.verdict == (c.plan_passed ? SlotVerdict::kPass : SlotVerdict::kFail);
        EXPECT_EQ(call.why.empty(), own) << call.why;
    }
    EXPECT_EQ(station::verdict_wait_ms(2000, 5000), 5000u);
    EXPECT_EQ(station::verdict_wait_ms(4000, 5000), 6000u);
}

}  // namespace
