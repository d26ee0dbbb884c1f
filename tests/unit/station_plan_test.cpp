// The station's plan: every refusal names the file, the line and the reason
// before any phone is touched, and what a plan leaves unsaid gets its
// default.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <string>

#include "pc/station/plan.hpp"

namespace {

namespace fs = std::filesystem;

class StationPlan : public ::testing::Test {
protected:
    void SetUp() override {
        // A folder of this test's own, on Linux and under Wine alike.
        const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        dir_ = (fs::temp_directory_path() / ("ovta-plan-" + name + "-" + std::to_string(std::random_device{}())))
                   .generic_string();
        ASSERT_TRUE(fs::create_directories(dir_)) << dir_;
        std::ofstream(dir_ + "/golden.bin", std::ios::binary) << "0123456789abcdef";
    }
    void TearDown() override { fs::remove_all(dir_); }

    // The refusal of `text` as the file plan.toml, or "accepted".
    std::string refusal(const std::string& text) {
        std::string error;
        auto plan = station::parse_plan_text(text, dir_ + "/plan.toml", &error);
        if (plan) return "accepted";
        EXPECT_EQ(error.rfind(dir_ + "/plan.toml", 0), 0u) << error;
        return error.substr(dir_.size() + 1);
    }

    std::string dir_;
};

TEST_F(StationPlan, EveryRefusalNamesFileLineAndReason) {
    const std::string head = "station = 12\n";
    struct Case {
        std::string text;
        std::string refusal;
    };
    const Case cases[] = {
        {head + "[[step]]\ncommand = \"version\"\n\n[[step]]\ncommand = \"frobnicate\"\n",
         "plan.toml:6: unknown command \"frobnicate\""},
        {head + "[[step]]\ncommand = \"card\"\nslice = 4\n", "plan.toml:4: unknown key slice for card"},
        {head + "[[step]]\ncommand = \"card\"\nexpect = { min = 2000, max = 1000 }\n",
         "plan.toml:4: min 2000 is above max 1000"},
        {head + "[[step]]\ncommand = \"card\"\nexpect = { min = \"lots\" }\n", "plan.toml:4: min is a whole number"},
        {head + "[[step]]\ncommand = \"rf read\"\ntable = 1\noffset = 0\nlen = 16\nexpect = { golden = \"gone.bin\" }\n",
         "plan.toml:7: golden file " + dir_ + "/gone.bin cannot be read"},
        {head + "[[step]]\ncommand = \"rf read\"\ntable = 1\noffset = 0\nlen = 8\nexpect = { golden = \"golden.bin\" }\n",
         "plan.toml:7: golden file " + dir_ + "/golden.bin is larger than 8 bytes"},
        {head + "[[step]]\ncommand = \"version\"\nexpect = { golden = \"golden.bin\" }\n",
         "plan.toml:4: the answer to version has nothing for golden"},
        {head + "[[step]]\ncommand = \"rf read\"\ntable = 1\noffset = 0\nlen = 4\nexpect = { written = true }\n",
         "plan.toml:7: written = true, but no earlier rf write of the plan wrote table 1 at 0, 4 bytes"},
        {head + "verdict_timeout_ms = 0\n[[step]]\ncommand = \"card\"\n",
         "plan.toml:2: verdict_timeout_ms is 0, outside 1 to 86400000"},
        {head + "[[step]]\ncommand = \"date set\"\nvalue = \"{yesterday}\"\n",
         "plan.toml:4: unknown placeholder {yesterday} (there are {board}, {slot} and {today})"},
        {head + "[[step]]\ncommand = \"rf read\"\ntable = -1\noffset = 0\nlen = 4\n",
         "plan.toml:4: table is -1, outside 0 to 4294967295"},
        {head + "[[step]]\ncommand = \"rf read\"\ntable = 1\noffset = 0\nlen = 4\nslice = 0\n",
         "plan.toml:7: slice is 1 to 40928 bytes"},
        {head + "[[step]]\ncommand = \"rf read\"\ntable = 1\noffset = 4294967295\nlen = 2\n",
         "plan.toml:3: offset + len runs past 4 GiB"},
        {head + "[[step]]\ncommand = \"rf write\"\ntable = 1\noffset = 0\n",
         "plan.toml:3: rf write takes data = \"HEX\" or file = PATH"},
        {head + "[[step]]\ncommand = \"rf write\"\ntable = 1\noffset = 0\nlen = 4\ndata = \"01 02\"\n",
         "plan.toml:3: rf write of 4 bytes has only 2"},
        {head + "[[step]]\ncommand = \"send\"\ncmd = 100\nbody = \"0G\"\n", "plan.toml:5: body is no hex byte string: 0G"},
        {head + "[[step]]\ncommand = \"result get\"\n", "plan.toml:3: result get needs station"},
        {head + "[[step]]\ncommand = \"version\"\nexpect = { matches = \"([\" }\n",
         "plan.toml:4: matches is no regular expression: (["},
        {head + "[[step]]\ncommand = \"version\"\nexpect = { about = 1 }\n",
         "plan.toml:4: unknown expectation about (there are equals, matches, min, max, bytes, golden, written)"},
        {head + "[[step]]\nname = \"no command\"\n", "plan.toml:2: a step without command"},
        {head + "[[step]]\ncommand = \"version\"\ntimeout_ms = 0\n", "plan.toml:4: timeout_ms is 0, outside 1 to 86400000"},
        {"verdict = true\n[[step]]\ncommand = \"card\"\n", "plan.toml: verdict = true needs the station number (station = N)"},
        {head + "stations = 3\n[[step]]\ncommand = \"card\"\n", "plan.toml:2: unknown key stations"},
        {head, "plan.toml: the plan has no [[step]]"},
    };
    for (const Case& c : cases) EXPECT_EQ(refusal(c.text), c.refusal) << c.text;
    // The TOML reader words its syntax errors itself; the line is ours to check.
    const std::string syntax = refusal(head + "[[step]]\ncommand = \"card\"\nexpect = { min = 1\n");
    EXPECT_EQ(syntax.rfind("plan.toml:4: ", 0), 0u) << syntax;
    std::string error;
    EXPECT_FALSE(station::parse_plan(dir_ + "/none.toml", &error));
    EXPECT_EQ(error, dir_ + "/none.toml: cannot be read");
}

TEST_F(StationPlan, AcceptedPlanKeepsOrderArgumentsAndDefaults) {
    std::ofstream(dir_ + "/table.bin", std::ios::binary) << "ABCDEFGH";
    std::string error;
    auto plan = station::parse_plan_text(R"(station = 7
verdict = true
timeout_ms = 800
boards = ["SN-1", "SN-2"]
[[step]]
command = "rf write"
table = 2
offset = 16
file = "table.bin"
[[step]]
name = "read back"
command = "rf read"
table = 2
offset = 16
len = 8
timeout_ms = 50
expect = { written = true, golden = "table.bin" }
[[step]]
command = "send"
cmd = 100
body = "01 02"
expect = { min = 0, max = 0, bytes = "00 00 00 00" }
)",
                                         dir_ + "/plan.toml", &error);
    ASSERT_TRUE(plan) << error;
    EXPECT_EQ(plan->name, "plan.toml");
    EXPECT_EQ(plan->station, 7u);
    EXPECT_TRUE(plan->verdict);
    EXPECT_EQ(plan->boards, (std::vector<std::string>{"SN-1", "SN-2"}));
    ASSERT_EQ(plan->steps.size(), 3u);
    const station::Step& write = plan->steps[0];
    EXPECT_EQ(write.name, "rf write");
    EXPECT_EQ(write.line, 6);
    EXPECT_EQ(write.len, 8u);  // the file's size when len is not given
    EXPECT_EQ(std::string(write.data.begin(), write.data.end()), "ABCDEFGH");
    EXPECT_EQ(write.slice, 32768u);
    EXPECT_EQ(write.timeout_ms, 800u);
    const station::Step& read = plan->steps[1];
    EXPECT_EQ(read.name, "read back");
    EXPECT_EQ(read.timeout_ms, 50u);
    EXPECT_EQ(read.expect.written_by, 0u);
    EXPECT_EQ(std::string(read.expect.golden.begin(), read.expect.golden.end()), "ABCDEFGH");
    EXPECT_EQ(plan->steps[2].data, (std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(plan->steps[2].number, 100u);
    EXPECT_FALSE(plan->uses_board);
    EXPECT_FALSE(plan->sets_board);
    // The verdict waits out the store's creation (2 s) beside the plan's time.
    EXPECT_EQ(plan->verdict_timeout_ms, 5000u);

    // {board} without a list: the command line may give the numbers.
    auto boards = station::parse_plan_text("station = 7\nverdict = true\ntimeout_ms = 4000\n[[step]]\n"
                                           "command = \"board set\"\nvalue = \"{board}\"\n",
                                           dir_ + "/plan.toml", &error);
    ASSERT_TRUE(boards) << error;
    EXPECT_TRUE(boards->uses_board);
    EXPECT_TRUE(boards->sets_board);
    EXPECT_EQ(boards->verdict_timeout_ms, 6000u);
    auto longer = station::parse_plan_text("verdict_timeout_ms = 9000\n[[step]]\ncommand = \"card\"\n",
                                           dir_ + "/plan.toml", &error);
    ASSERT_TRUE(longer) << error;
    EXPECT_EQ(longer->verdict_timeout_ms, 9000u);

    EXPECT_EQ(station::expand("{board}/{slot}/{today}/{x}", "SN-2", 2, "2026-11-24"), "SN-2/2/2026-11-24/{x}");
}

}  // namespace
