// The soak: for OVTA_SOAK_MINUTES (default 1), the PC and wfmgr keep the agent
// busy with a random mix of what a factory line sends and what it should not:
// forwarded commands, the agent's own commands, wfmgr's file requests, frames
// in pieces and two in one write, stray bytes, lying frame lengths and overlong
// wfmgr messages. Every answer must come, byte for byte; at the end the agent's
// descriptors and resident memory must not have grown and it must stop cleanly.
// The seed is printed and taken from OVTA_SOAK_SEED to replay a run.
#include <chrono>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "channel/amt_channel.hpp"
#include "tests/e2e/rf_phone_test.hpp"

namespace e2e {
namespace {

// Command 100 with body 01 02 03 04, the request wfmgr gets for it, a confirm
// of response 18 and the frame the PC gets for that confirm.
const Bytes kFrame100 = hex("AA BB CC DD 10 00 00 00 02 00 00 00 64 00 00 00 01 02 03 04 EB BD B0 AD");
const Bytes kRequest100 =
    hex("20 00 00 00 FF FF FF FF FF FF FF FF 03 00 04 00 0C 00 00 00 64 00 00 00 01 02 03 04 EB BD B0 AD");
const Bytes kConfirm18 = hex("1C 00 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 08 00 00 00 12 00 00 00 00 00 00 00");
const Bytes kFrame18 = hex("AA BB CC DD 10 00 00 00 02 00 00 00 12 00 00 00 00 00 00 00 DA BD 91 C9");
// The agent's own commands: the version (no version property: one byte 0),
// the board number (never stored: refused), and the production date
// "20240131" stored and read back.
const Bytes kReadVersion = hex("AA BB CC DD 10 00 00 00 02 00 00 00 2D 00 00 00 01 00 00 00 98 2B 36 6E");
const Bytes kVersion = hex("AA BB CC DD 15 00 00 00 02 00 00 00 2E 00 00 00 00 00 00 00 01 00 00 00 30 AA A7 BE E3");
const Bytes kReadBoard = hex("AA BB CC DD 0C 00 00 00 02 00 00 00 55 00 00 00 44 68 78 34");
const Bytes kBoardNotRead = hex("AA BB CC DD 10 00 00 00 02 00 00 00 56 00 00 00 0A 00 00 00 C0 AA 3C 19");
const Bytes kWriteDate =
    hex("AA BB CC DD 15 00 00 00 02 00 00 00 43 00 00 00 32 30 32 34 30 31 33 31 00 55 D2 50 55");
const Bytes kDateStored = hex("AA BB CC DD 10 00 00 00 02 00 00 00 44 00 00 00 00 00 00 00 DF 6B 5A 90");
const Bytes kReadDate = hex("AA BB CC DD 0C 00 00 00 02 00 00 00 41 00 00 00 9A 42 09 3E");
const Bytes kDate = hex("AA BB CC DD 1C 00 00 00 02 00 00 00 42 00 00 00 00 00 00 00 "
                        "32 30 32 34 30 31 33 31 00 00 00 00 C8 36 0B CB");
// wfmgr reads 4 bytes of cal.bin at 0.
const Bytes kInfoRead =
    hex("20 00 00 00 2A 00 00 00 FF FF FF FF 07 00 04 00 0C 00 00 00 07 00 00 00 00 00 00 00 04 00 00 00");
const Bytes kInfoReadConfirm = hex("28 00 00 00 2A 00 00 00 FF FF FF FF 08 00 04 00 14 00 00 00 "
                                   "07 00 00 00 00 00 00 00 04 00 00 00 04 00 00 00 00 01 02 03");
// Frame lengths far beyond the assembly buffer and below the minimum.
const Bytes kLyingLong = hex("AA BB CC DD FF FF FF 7F 02 00 00 00 05 00 00 00");
const Bytes kLyingShort = hex("AA BB CC DD 04 00 00 00 02 00 00 00 06 00 00 00");

struct Usage {
    long rss_kib = -1;
    int descriptors = -1;
};

Usage usage_of(pid_t pid) {
    Usage u;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) u.rss_kib = std::atol(line.c_str() + 6);
    }
    if (DIR* d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        u.descriptors = 0;
        while (dirent* e = readdir(d)) u.descriptors += e->d_name[0] != '.';
        closedir(d);
    }
    return u;
}

class Soak : public RfPhoneTest {
protected:
    void SetUp() override {
        RfPhoneTest::SetUp();
        if (IsSkipped()) return;
        start_agent("/amt/");
    }

    // Bytes the head search must pass over: anything but the head's first byte.
    Bytes stray(size_t max) {
        Bytes b(std::uniform_int_distribution<size_t>(1, max)(rng_));
        for (uint8_t& x : b) {
            do {
                x = static_cast<uint8_t>(rng_());
            } while (x == 0xAA);
        }
        return b;
    }

    // The PC's bytes in pieces with short pauses between them.
    void pc_sends_in_pieces(const Bytes& b) {
        size_t at = 0;
        while (at < b.size()) {
            size_t n = std::uniform_int_distribution<size_t>(1, b.size() - at)(rng_);
            pc_sends(Bytes(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at + n)));
            at += n;
            std::this_thread::sleep_for(std::chrono::microseconds(rng_() % 3000));
        }
    }

    // A forwarded command and its answer, both ways through the agent.
    void forwarded_round() {
        expect_pc_gets(kPreResponse);
        expect_wfmgr_gets(kRequest100);
        wfmgr_sends(kConfirm18);
        expect_pc_gets(kFrame18);
    }

    // Two messages that two threads of the agent send, in either order.
    void expect_wfmgr_gets_both(const Bytes& a, const Bytes& b) {
        auto first = wfmgr_->read_message(kWait);
        auto second = wfmgr_->read_message(kWait);
        ASSERT_TRUE(first.has_value() && second.has_value()) << "wfmgr got fewer than two messages";
        EXPECT_TRUE((*first == a && *second == b) || (*first == b && *second == a));
    }

    void one_round() {
        switch (rng_() % 10) {
            case 0:
                pc_sends(kFrame100);
                forwarded_round();
                break;
            case 1:
                pc_sends(concat({stray(40), kFrame100}));
                forwarded_round();
                break;
            case 2:
                pc_sends_in_pieces(concat({stray(8), kFrame100}));
                forwarded_round();
                break;
            case 3:
                pc_sends(concat({rng_() % 2 ? kLyingLong : kLyingShort, kFrame100}));
                forwarded_round();
                break;
            case 4:
                pc_sends(concat({kReadVersion, kReadBoard}));
                expect_pc_gets(concat({kPreResponse, kVersion, kPreResponse, kBoardNotRead}));
                break;
            case 5:
                wfmgr_sends(kInfoRead);
                expect_wfmgr_gets(kInfoReadConfirm);
                break;
            case 6: {
                Bytes big = hex("50 C3 00 00 07 00 00 00 FF FF FF FF 09 00 04 00 00 00 00 00");  // 50000 bytes
                big.resize(50000, static_cast<uint8_t>(rng_()));
                wfmgr_sends(concat({big, kConfirm18}));
                expect_pc_gets(kFrame18);
                break;
            }
            case 7:
                // Both sides at once: the PC's command crosses wfmgr's request.
                pc_sends(kFrame100);
                wfmgr_sends(kInfoRead);
                expect_pc_gets(kPreResponse);
                expect_wfmgr_gets_both(kRequest100, kInfoReadConfirm);
                wfmgr_sends(kConfirm18);
                expect_pc_gets(kFrame18);
                break;
            case 8:
                // A file replaced through its temporary file, then read back.
                pc_sends(kWriteDate);
                expect_pc_gets(concat({kPreResponse, kDateStored}));
                pc_sends(kReadDate);
                expect_pc_gets(concat({kPreResponse, kDate}));
                break;
            default:
                pc_sends(concat({kFrame100, kFrame100}));
                expect_pc_gets(concat({kPreResponse, kPreResponse}));
                expect_wfmgr_gets(kRequest100);
                expect_wfmgr_gets(kRequest100);
                wfmgr_sends(concat({kConfirm18, kConfirm18}));
                expect_pc_gets(concat({kFrame18, kFrame18}));
                break;
        }
    }

    std::mt19937 rng_;
};

TEST_F(Soak, MixedTrafficLosesNoAnswerAndLeavesNothingBehind) {
    const char* minutes_text = std::getenv("OVTA_SOAK_MINUTES");
    const double minutes = minutes_text != nullptr ? std::atof(minutes_text) : 1.0;
    const char* seed_text = std::getenv("OVTA_SOAK_SEED");
    const unsigned seed = seed_text != nullptr ? static_cast<unsigned>(std::strtoul(seed_text, nullptr, 10))
                                               : static_cast<unsigned>(std::random_device{}());
    rng_.seed(seed);
    std::printf("soak: %.1f minutes, OVTA_SOAK_SEED=%u\n", minutes, seed);

    // Every page of both rings is touched once before the first measure, so
    // that what grows after it is the agent's, not the rings' first use.
    Bytes filler(2 * kRingCapacity);
    for (size_t i = 0; i < filler.size(); ++i) filler[i] = static_cast<uint8_t>(i % 0xA0);
    pc_sends(filler);
    for (int i = 0; i < 12; ++i) one_round();
    Bytes big = hex("50 C3 00 00 07 00 00 00 FF FF FF FF 09 00 04 00 00 00 00 00");
    big.resize(50000, 0);
    for (int i = 0; i < 12; ++i) wfmgr_sends(big);
    wfmgr_sends(kConfirm18);
    expect_pc_gets(kFrame18);

    const auto length = std::chrono::duration<double>(minutes * 60.0);
    const auto start = std::chrono::steady_clock::now();
    const auto warm = start + length / 10;
    const auto end = start + length;
    Usage warmed;
    long rounds = 0;
    while (std::chrono::steady_clock::now() < end && !HasFailure()) {
        one_round();
        ++rounds;
        if (warmed.descriptors < 0 && std::chrono::steady_clock::now() >= warm) warmed = usage_of(daemon_->pid());
    }
    ASSERT_FALSE(HasFailure()) << "after " << rounds << " rounds, OVTA_SOAK_SEED=" << seed;
    EXPECT_TRUE(pc_->quiet_for(300ms));
    EXPECT_TRUE(wfmgr_->quiet_for(300ms));

    Usage last = usage_of(daemon_->pid());
    std::printf("soak: %ld rounds; after the warm-up %ld KiB and %d descriptors, at the end %ld KiB and %d\n",
                rounds, warmed.rss_kib, warmed.descriptors, last.rss_kib, last.descriptors);
    ASSERT_GE(warmed.descriptors, 0) << "the agent's /proc could not be read";
    EXPECT_EQ(last.descriptors, warmed.descriptors);
    EXPECT_LE(last.rss_kib, warmed.rss_kib + 512) << "resident memory grew";

    ASSERT_TRUE(daemon_->signal(SIGTERM));
    auto code = daemon_->wait_exit(kWait);
    ASSERT_TRUE(code.has_value());
    EXPECT_EQ(*code, 0);
    EXPECT_EQ(daemon_->count_log("will exit"), 1u);
    EXPECT_EQ(daemon_->count_log("loss data"), 0u);
}

}  // namespace
}  // namespace e2e
