// Each kind of expectation, met and unmet, with the reason the record gives.
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <vector>

#include "pc/station/expectation.hpp"

namespace {

using station::check;
using station::Measured;

Measured text(const std::string& t) {
    Measured m;
    m.text = t;
    return m;
}
Measured number(int64_t n) {
    Measured m;
    m.number = n;
    return m;
}
Measured bytes(std::vector<uint8_t> b) {
    Measured m;
    m.bytes = std::move(b);
    return m;
}
Measured both(const std::string& t, int64_t n) {
    Measured m = text(t);
    m.number = n;
    return m;
}

const station::SlotValues kSlot{"SN-0002", 2, "2026-11-24"};

std::string why(const station::Step& step, const Measured& got, const station::Plan& plan = {}) {
    station::CheckResult r = check(step, plan, got, kSlot);
    EXPECT_EQ(r.pass, r.why.empty());
    return r.pass ? "pass" : r.why;
}

TEST(StationExpectation, TextEqualsWithPlaceholdersAndMatchesAPattern) {
    station::Step step;
    step.expect.equals = "{board}";
    EXPECT_EQ(why(step, text("SN-0002")), "pass");
    EXPECT_EQ(why(step, text("SN-0001")), "\"SN-0001\" where \"SN-0002\" belongs");
    EXPECT_EQ(why(step, {}), "no text came to compare with \"SN-0002\"");

    station::Step pattern;
    pattern.expect.matches = "^V[0-9]+\\.[0-9]+$";
    pattern.expect.pattern = std::regex(*pattern.expect.matches, std::regex::extended);
    EXPECT_EQ(why(pattern, text("V1.20")), "pass");
    EXPECT_EQ(why(pattern, text("V1.20-beta")), "\"V1.20-beta\" does not match ^V[0-9]+\\.[0-9]+$");
}

TEST(StationExpectation, NumberWithinLimitsEitherSideInclusive) {
    station::Step step;
    step.expect.min = 1024;
    step.expect.max = 65536;
    EXPECT_EQ(why(step, number(1024)), "pass");
    EXPECT_EQ(why(step, number(65536)), "pass");
    EXPECT_EQ(why(step, number(1023)), "1023 is below the lower limit 1024");
    EXPECT_EQ(why(step, number(65537)), "65537 is above the upper limit 65536");
    EXPECT_EQ(why(step, text("16384")), "no number came to hold against the limits");
    station::Step upper_only;
    upper_only.expect.max = 0;
    EXPECT_EQ(why(upper_only, number(-5)), "pass");
}

TEST(StationExpectation, BytesGoldenFileAndWhatWasWrittenNameTheFirstDifference) {
    station::Step step;
    step.expect.bytes = std::vector<uint8_t>{0x01, 0x02, 0x03};
    EXPECT_EQ(why(step, bytes({1, 2, 3})), "pass");
    EXPECT_EQ(why(step, bytes({1, 2, 4})), "not equal to 01 02 03: byte 2 is 04 where 03 belongs");
    EXPECT_EQ(why(step, bytes({1, 2})), "not equal to 01 02 03: 2 bytes where 3 belong");

    station::Step golden;
    golden.expect.golden_path = "cal.bin";
    golden.expect.golden = {0xAA, 0xBB};
    EXPECT_EQ(why(golden, bytes({0xAA, 0xBB})), "pass");
    EXPECT_EQ(why(golden, bytes({0xAB, 0xBB})),
              "not equal to the golden file cal.bin: byte 0 is AB where AA belongs");
    EXPECT_EQ(why(golden, {}), "no bytes came to compare with the golden file cal.bin");

    station::Plan plan;
    plan.steps.resize(3);
    plan.steps[1].data = {0x10, 0x20};
    station::Step readback;
    readback.expect.written_by = 1;
    EXPECT_EQ(why(readback, bytes({0x10, 0x20}), plan), "pass");
    EXPECT_EQ(why(readback, bytes({0x10, 0x21}), plan),
              "not equal to what step 2 wrote: byte 1 is 21 where 20 belongs");
}

TEST(StationExpectation, NoExpectationPassesAndSeveralStopAtTheFirstUnmet) {
    EXPECT_EQ(why(station::Step{}, {}), "pass");
    station::Step step;
    step.expect.equals = "ok";
    step.expect.min = 1;
    EXPECT_EQ(why(step, both("ok", 0)), "0 is below the lower limit 1");
    EXPECT_EQ(why(step, both("no", 0)), "\"no\" where \"ok\" belongs");
}

}  // namespace
