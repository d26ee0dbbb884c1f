// The station's limits, each from both sides, and the plan values whose
// unit or reach is easy to get wrong: a step's timeout in milliseconds
// (against a phone that answers late), a pattern that is searched for, an rf
// write cut to its len, the last write of a range, the largest slice, a range
// that ends at 4 GiB, and the frame and body sizes of the PC link.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "agent_stand_in.hpp"
#include "pc/lib/hex_text.hpp"
#include "pc/lib/pc_frame_codec.hpp"
#include "pc/lib/pc_requests.hpp"
#include "pc/lib/table_transfer.hpp"
#include "pc/os/line.hpp"
#include "pc/station/expectation.hpp"
#include "pc/station/plan.hpp"
#include "pc/station/slot_runner.hpp"
#include "process/unique_fd.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

Bytes hex(const char* text) { return *tools::parse_hex(text); }

const Bytes kPreResponse = hex("AA BB CC DD 08 00 00 00 02 02 00 00 76 4A EE 1D");
// Command 45, module 0, and response 46 with version "V1".
const Bytes kVersion = hex("AA BB CC DD 10 00 00 00 02 00 00 00 2D 00 00 00 00 00 00 00 AE DD BB F6");
const Bytes kVersionV1 =
    hex("AA BB CC DD 16 00 00 00 02 00 00 00 2E 00 00 00 00 00 00 00 00 00 00 00 56 31 3A 8D EA EB");
// Command 61: table 1, offset 0, 4 bytes; response 62 with 01 02 03 04.
const Bytes kRead4 =
    hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 01 00 00 00 00 00 00 00 04 00 00 00 BD 5A 92 60");
const Bytes kData1234 = hex("AA BB CC DD 14 00 00 00 02 00 00 00 3E 00 00 00 00 00 00 00 01 02 03 04 4C 3B D4 CB");

std::optional<station::Plan> plan_of(const std::string& text, std::string* error) {
    return station::parse_plan_text("station = 12\n" + text, "/tmp/limits.toml", error);
}

// The refusal of a plan, or "accepted".
std::string refusal(const std::string& text) {
    std::string error;
    return plan_of(text, &error) ? "accepted" : error;
}

std::string rf_step(const char* command, const std::string& rest) {
    return std::string("[[step]]\ncommand = \"") + command + "\"\ntable = 1\n" + rest;
}

TEST(StationLimits, SliceAndRangeAreTakenUpToTheirLastByteAndRefusedOnePast) {
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 0\nlen = 4\nslice = 40928\n")), "accepted");
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 0\nlen = 4\nslice = 40929\n")),
              "/tmp/limits.toml:7: slice is 1 to 40928 bytes");
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 0\nlen = 4\nslice = 1\n")), "accepted");

    // A range that ends at 4 GiB exactly, from either end; one byte more is refused.
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 4294967295\nlen = 1\n")), "accepted");
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 0\nlen = 4294967295\n")), "accepted");
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 4294967294\nlen = 2\n")), "accepted");
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 1\nlen = 4294967295\n")), "accepted");
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 2\nlen = 4294967295\n")),
              "/tmp/limits.toml:3: offset + len runs past 4 GiB");
    EXPECT_EQ(refusal(rf_step("rf write", "offset = 4294967295\ndata = \"01\"\n")), "accepted");
    EXPECT_EQ(refusal(rf_step("rf write", "offset = 4294967295\nlen = 2\ndata = \"01 02\"\n")),
              "/tmp/limits.toml:3: offset + len runs past 4 GiB");
    // Without len the data's size is the len.
    EXPECT_EQ(refusal(rf_step("rf write", "offset = 4294967295\ndata = \"01 02\"\n")),
              "/tmp/limits.toml:3: offset + len runs past 4 GiB");

    EXPECT_TRUE(tools::range_fits(0xFFFFFFFFu, 1));
    EXPECT_TRUE(tools::range_fits(0x80000000u, 0x80000000u));
    EXPECT_TRUE(tools::range_fits(0xFFFFFFFFu, 0));
    EXPECT_FALSE(tools::range_fits(0xFFFFFFFFu, 2));
    EXPECT_FALSE(tools::range_fits(0x80000001u, 0x80000000u));
}

TEST(StationLimits, PlanNumbersAreTakenUpToTheirLastValue) {
    const std::string version = "[[step]]\ncommand = \"version\"\n";
    EXPECT_EQ(refusal(version + "timeout_ms = 1\n"), "accepted");
    EXPECT_EQ(refusal(version + "timeout_ms = 86400000\n"), "accepted");
    EXPECT_EQ(refusal(version + "timeout_ms = 86400001\n"),
              "/tmp/limits.toml:4: timeout_ms is 86400001, outside 1 to 86400000");
    EXPECT_EQ(refusal("timeout_ms = 86400001\n" + version),
              "/tmp/limits.toml:2: timeout_ms is 86400001, outside 1 to 86400000");
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 4294967295\nlen = 0\n")), "accepted");
    EXPECT_EQ(refusal("[[step]]\ncommand = \"rf read\"\ntable = 4294967295\noffset = 0\nlen = 1\n"), "accepted");
    EXPECT_EQ(refusal("[[step]]\ncommand = \"rf read\"\ntable = 4294967296\noffset = 0\nlen = 1\n"),
              "/tmp/limits.toml:4: table is 4294967296, outside 0 to 4294967295");
    EXPECT_EQ(refusal("[[step]]\ncommand = \"card\"\nexpect = { min = 5, max = 5 }\n"), "accepted");
    // A golden file as long as the read; one byte short is refused.
    char dir[] = "/tmp/ovta-limits-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string golden = std::string(dir) + "/golden.bin";
    FILE* f = fopen(golden.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fwrite("0123", 1, 4, f);
    fclose(f);
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 0\nlen = 4\nexpect = { golden = \"" + golden + "\" }\n")),
              "accepted");
    EXPECT_EQ(refusal(rf_step("rf read", "offset = 0\nlen = 5\nexpect = { golden = \"" + golden + "\" }\n")),
              "/tmp/limits.toml:7: golden file holds 4 bytes, the read 5");
    unlink(golden.c_str());
    rmdir(dir);
}

// An rf write's file of 64 MiB is taken, one byte more is refused (sparse
// files: nothing is written to the disk).
TEST(StationLimits, RfWriteFileUpTo64MiB) {
    char dir[] = "/tmp/ovta-limits-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/table.bin";
    for (const off_t size : {off_t{64} << 20, (off_t{64} << 20) + 1}) {
        FILE* f = fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(ftruncate(fileno(f), size), 0);
        fclose(f);
        std::string error;
        auto plan = plan_of(rf_step("rf write", "offset = 0\nfile = \"" + path + "\"\n"), &error);
        if (size == off_t{64} << 20) {
            ASSERT_TRUE(plan) << error;
            EXPECT_EQ(plan->steps[0].len, 64u << 20);
        } else {
            EXPECT_FALSE(plan);
            EXPECT_EQ(error, "/tmp/limits.toml:6: file " + path + " is larger than 67108864 bytes");
        }
    }
    unlink(path.c_str());
    rmdir(dir);
}

TEST(StationLimits, RfWriteShorterThanItsDataWritesAndComparesItsLenOnly) {
    std::string error;
    auto plan = plan_of(rf_step("rf write", "offset = 8\nlen = 2\ndata = \"A1 A2 A3 A4\"\n") +
                            rf_step("rf read", "offset = 8\nlen = 2\nexpect = { written = true }\n"),
                        &error);
    ASSERT_TRUE(plan) << error;
    EXPECT_EQ(plan->steps[0].data, hex("A1 A2"));
    station::Measured got;
    got.bytes = hex("A1 A2");
    EXPECT_TRUE(station::check(plan->steps[1], *plan, got, {}).pass);
}

TEST(StationLimits, WrittenComparesWithTheLastWriteOfTheRange) {
    std::string error;
    auto plan = plan_of(rf_step("rf write", "offset = 0\ndata = \"01 02\"\n") +
                            rf_step("rf write", "offset = 4\ndata = \"0A 0B\"\n") +
                            rf_step("rf write", "offset = 0\ndata = \"03 04\"\n") +
                            rf_step("rf read", "offset = 0\nlen = 2\nexpect = { written = true }\n"),
                        &error);
    ASSERT_TRUE(plan) << error;
    EXPECT_EQ(plan->steps[3].expect.written_by, 2u);
    station::Measured got;
    got.bytes = hex("03 04");
    EXPECT_TRUE(station::check(plan->steps[3], *plan, got, {}).pass);
    got.bytes = hex("01 02");
    EXPECT_EQ(station::check(plan->steps[3], *plan, got, {}).why,
              "not equal to what step 3 wrote: byte 0 is 01 where 03 belongs");
}

TEST(StationLimits, MatchesSearchesTheTextAndAnchorsOnlyWhereThePatternSaysSo) {
    std::string error;
    auto plan = plan_of("[[step]]\ncommand = \"version\"\nexpect = { matches = \"[0-9]+\\\\.[0-9]+\" }\n"
                        "[[step]]\ncommand = \"version\"\nexpect = { matches = \"^[0-9]\" }\n",
                        &error);
    ASSERT_TRUE(plan) << error;
    station::Measured got;
    got.text = "version V1.20 (build 7)";
    EXPECT_TRUE(station::check(plan->steps[0], *plan, got, {}).pass);
    EXPECT_EQ(station::check(plan->steps[1], *plan, got, {}).why,
              "\"version V1.20 (build 7)\" does not match ^[0-9]");
    got.text = "7";
    EXPECT_TRUE(station::check(plan->steps[1], *plan, got, {}).pass);
}

TEST(StationLimits, FrameAndBodySizesUpToTheLargestAndNotOneMore) {
    EXPECT_EQ(tools::kPcBodyMax, 40940u);
    auto largest = tools::build_pc_frame(100, Bytes(40940, 0x5A));
    ASSERT_TRUE(largest);
    EXPECT_EQ(largest->size(), 40960u);
    EXPECT_EQ((Bytes(largest->begin() + 4, largest->begin() + 8)), hex("F8 9F 00 00"));  // frame_len 40952
    auto decoded = tools::decode_pc_frame(*largest);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->body.size(), 40940u);
    EXPECT_TRUE(decoded->crc_ok());
    EXPECT_FALSE(tools::build_pc_frame(100, Bytes(40941, 0x5A)));
    // The largest write slice, with its 12 bytes of table, offset and len,
    // still fits one frame.
    const Bytes slice(tools::kTableSliceMax, 0x11);
    EXPECT_TRUE(tools::build_pc_frame(tools::kCmdWriteTable, tools::write_table_body(1, 0, slice)));

    // The cutter takes a head with frame_len 40952 and skips one with 40953.
    Bytes frame(40960, 0);
    const Bytes head = hex("AA BB CC DD F8 9F 00 00");
    std::copy(head.begin(), head.end(), frame.begin());
    tools::PcFrameCutter cutter;
    cutter.feed(frame);
    auto cut = cutter.next();
    ASSERT_TRUE(cut);
    EXPECT_EQ(cut->size(), 40960u);
    EXPECT_EQ(cutter.skipped(), 0u);
    frame[4] = 0xF9;  // frame_len 40953
    tools::PcFrameCutter past;
    past.feed(frame);
    EXPECT_FALSE(past.next());
    EXPECT_GE(past.skipped(), 4u);

    std::string error;
    EXPECT_TRUE(plan_of("[[step]]\ncommand = \"send\"\ncmd = 100\nbody = \"" +
                            tools::to_hex(Bytes(40940, 1)) + "\"\n", &error)) << error;
    EXPECT_EQ(refusal("[[step]]\ncommand = \"send\"\ncmd = 100\nbody = \"" + tools::to_hex(Bytes(40941, 1)) + "\"\n"),
              "/tmp/limits.toml:3: a body holds at most 40940 bytes");
}

// A phone on a pseudo-terminal that answers each request only after a delay.
class LatePhone : public ::testing::Test {
protected:
    void SetUp() override {
        int master = -1;
        int slave = -1;
        termios raw{};
        cfmakeraw(&raw);
        ASSERT_EQ(openpty(&master, &slave, nullptr, &raw, nullptr), 0);
        phone_.reset(master);
        char name[128] = {};
        ASSERT_EQ(ttyname_r(slave, name, sizeof(name)), 0);
        // Held open, so that the phone's end sees no hang-up before the
        // station opens the line.
        slave_.reset(slave);
        device_ = name;
    }

    // Reads `request`, waits `delay`, then sends the pre-response and `answer`.
    void answer_late(const Bytes& request, std::chrono::milliseconds delay, const Bytes& answer) {
        phone_thread_ = std::thread([this, request, delay, answer] {
            Bytes got(request.size());
            size_t n = 0;
            while (n < got.size()) {
                pollfd p{phone_.get(), POLLIN, 0};
                if (poll(&p, 1, 5000) <= 0) break;
                const ssize_t r = read(phone_.get(), got.data() + n, got.size() - n);
                if (r <= 0) return;
                n += static_cast<size_t>(r);
            }
            EXPECT_EQ(got, request);
            std::this_thread::sleep_for(delay);
            Bytes out = kPreResponse;
            out.insert(out.end(), answer.begin(), answer.end());
            // The station may have gone by now; what it no longer reads is lost.
            (void)!write(phone_.get(), out.data(), out.size());
        });
    }

    station::SlotRecord run(const station::Plan& plan) {
        station::SlotStatus row;
        row.device = device_;
        station::StatusBoard board({row});
        station::SlotSetup setup{1, device_, "", "2026-11-26", &stop_};
        station::SlotRecord r = station::run_slot(plan, setup, board);
        phone_thread_.join();
        return r;
    }

    static station::Plan one_step(const std::string& step_text) {
        std::string error;
        auto plan = plan_of(step_text, &error);
        EXPECT_TRUE(plan) << error;
        return plan.value_or(station::Plan{});
    }

    UniqueFd phone_;
    UniqueFd slave_;
    pcos::Stop stop_;
    std::string device_;
    std::thread phone_thread_;
};

// A step's time is in milliseconds: an answer 700 ms late misses a 200 ms
// step and meets a 3000 ms one.
TEST_F(LatePhone, StepTimeoutIsInMilliseconds) {
    answer_late(kVersion, 700ms, kVersionV1);
    // The plan's own time, which every step without one takes.
    station::SlotRecord r = run(one_step("timeout_ms = 200\n[[step]]\ncommand = \"version\"\n"));
    ASSERT_EQ(r.steps.size(), 1u);
    EXPECT_EQ(r.steps[0].verdict, station::StepVerdict::kFail);
    EXPECT_EQ(r.reason, "nothing came within 200 ms");
}

TEST_F(LatePhone, StepTimeoutOfSecondsWaitsForALateAnswer) {
    answer_late(kVersion, 700ms, kVersionV1);
    station::SlotRecord r = run(one_step("[[step]]\ncommand = \"version\"\ntimeout_ms = 3000\n"));
    EXPECT_TRUE(r.passed) << r.reason;
}

TEST_F(LatePhone, RfReadTimeoutIsInMilliseconds) {
    answer_late(kRead4, 700ms, kData1234);
    station::SlotRecord r = run(one_step(rf_step("rf read", "offset = 0\nlen = 4\ntimeout_ms = 200\n")));
    ASSERT_EQ(r.steps.size(), 1u);
    EXPECT_EQ(r.steps[0].verdict, station::StepVerdict::kFail);
    EXPECT_EQ(r.reason, "nothing came within 200 ms");
}

// A record keeps up to 4096 data bytes as hex text, and of a longer transfer
// its count only.
TEST(StationRecordLimits, DataUpTo4096BytesIsKeptAsHexAndLongerAsItsCount) {
    stand_in::AgentStandIn phone(stand_in::table_answer);
    const std::string data4096 = tools::to_hex(Bytes(4096, 0x42));
    const std::string data4097 = tools::to_hex(Bytes(4097, 0x42));
    std::string error;
    auto plan = plan_of(rf_step("rf read", "offset = 0\nlen = 4096\n") + rf_step("rf read", "offset = 0\nlen = 4097\n") +
                            rf_step("rf write", "offset = 0\ndata = \"" + data4096 + "\"\n") +
                            rf_step("rf write", "offset = 0\ndata = \"" + data4097 + "\"\n"),
                        &error);
    ASSERT_TRUE(plan) << error;
    pcos::Stop stop;
    station::SlotStatus row;
    row.device = phone.device();
    station::StatusBoard board({row});
    station::SlotSetup setup{1, phone.device(), "", "2026-11-26", &stop};
    station::SlotRecord r = station::run_slot(*plan, setup, board);
    ASSERT_TRUE(r.passed) << r.reason;
    ASSERT_EQ(r.steps.size(), 4u);
    const std::string measured = r.steps[0].measured.get<std::string>();
    EXPECT_EQ(measured.size(), 4096u * 3 - 1);
    EXPECT_EQ(measured.substr(0, 11), "00 01 02 03");
    EXPECT_EQ(measured.substr(measured.size() - 5), "FE FF");
    EXPECT_EQ(r.steps[1].measured, "4097 bytes");
    EXPECT_EQ(r.steps[2].request["data"], data4096);
    EXPECT_EQ(r.steps[3].request["data"], "4097 bytes");
}

}  // namespace
