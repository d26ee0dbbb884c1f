// The PC tool's reading of the agent's answers. The e2e tests of ovta-pc run
// the accepted and refused answers through the real program; here are the
// answers of the wrong size, which must never pass for the agent's, and the
// enter-AMT texts that tell the station what went wrong. Frames are literal
// bytes worked out by hand from the answer layouts.
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "pc/lib/hex_text.hpp"
#include "pc/lib/pc_answers.hpp"
#include "pc/lib/pc_frame_codec.hpp"
#include "pc/lib/pc_requests.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
using tools::Verdict;

Bytes hex(const char* text) { return *tools::parse_hex(text); }

// The body of response 18, which must carry a good CRC.
Bytes body_of_18(const char* frame_hex) {
    auto frame = tools::decode_pc_frame(hex(frame_hex));
    EXPECT_TRUE(frame && frame->crc_ok() && frame->cmd == 18u) << frame_hex;
    return frame ? frame->body : Bytes{};
}

TEST(PcAnswers, EnterAmtResultsAreNamedByModeAndTheNameMustFitTheRequest) {
    const Bytes done = body_of_18("AA BB CC DD 10 00 00 00 02 00 00 00 12 00 00 00 00 00 00 00 DA BD 91 C9");
    const Bytes unchanged = body_of_18("AA BB CC DD 10 00 00 00 02 00 00 00 12 00 00 00 01 00 00 00 EC 4B 1C 51");
    const Bytes failed = body_of_18("AA BB CC DD 10 00 00 00 02 00 00 00 12 00 00 00 0A 00 00 00 D0 9D 01 58");
    EXPECT_EQ(tools::enter_amt_answer(done, 0x104).text, "enter AMT: done, the AMT path now ends in the name");
    auto no_slash = tools::enter_amt_answer(unchanged, 4);
    EXPECT_EQ(no_slash.verdict, Verdict::kRefused);
    EXPECT_EQ(no_slash.text, "enter AMT: the AMT path has no fourth slash, unchanged (result 1)");
    EXPECT_EQ(tools::enter_amt_answer(failed, 0).text, "enter AMT: wfmgr did not load the name (result 10)");
    // The agent answers an empty name with nothing at all; a name of 64 bytes
    // does not fit the load request.
    EXPECT_FALSE(tools::enter_amt_body(0, "").has_value());
    EXPECT_FALSE(tools::enter_amt_body(0, std::string(64, 'n')).has_value());
    EXPECT_TRUE(tools::enter_amt_body(0, std::string(63, 'n')).has_value());
}

// An answer built by someone else under the same number, such as an echo of
// the request, has another size and must not pass for the agent's answer.
TEST(PcAnswers, AnswersOfTheWrongSizeAreMalformed) {
    const Bytes result_only = {0, 0, 0, 0};
    const Bytes echo_of_date = hex("32 30 32 32 2D 30 38 2D 30 35 00");
    EXPECT_EQ(tools::version_answer(result_only).verdict, Verdict::kMalformed);
    EXPECT_EQ(tools::read_date_answer(result_only).verdict, Verdict::kMalformed);
    EXPECT_EQ(tools::read_board_answer(Bytes(25)).verdict, Verdict::kMalformed);
    EXPECT_EQ(tools::read_result_answer(result_only, 1).verdict, Verdict::kMalformed);
    EXPECT_EQ(tools::card_answer(result_only).verdict, Verdict::kMalformed);
    EXPECT_EQ(tools::enter_amt_answer({}, 0).verdict, Verdict::kMalformed);
    // A read that says done must carry exactly what was asked for.
    EXPECT_EQ(tools::read_table_answer(hex("00 00 00 00 01 02"), 4).verdict, Verdict::kMalformed);
    EXPECT_EQ(tools::read_table_answer(hex("0A 00 00 00 01 02 03"), 2).verdict, Verdict::kMalformed);
    auto echo = tools::write_date_answer(echo_of_date);
    EXPECT_EQ(echo.verdict, Verdict::kMalformed);
    EXPECT_EQ(echo.text, "production date written: malformed answer, a body of 11 bytes where 4 belong");
}

// Each answer's size range from both ends: the shortest and the longest
// are the agent's (result 0, zero bytes behind it), one byte less or more is
// malformed.
TEST(PcAnswers, AnswerSizesAreTakenAtBothEndsOfTheirRangeAndMalformedOnePast) {
    struct Range {
        const char* what;
        Verdict (*read)(const Bytes&);
        size_t least;
        size_t most;
    };
    const Range ranges[] = {
        {"version", [](const Bytes& b) { return tools::version_answer(b).verdict; }, 8, 72},
        {"board", [](const Bytes& b) { return tools::read_board_answer(b).verdict; }, 4, 24},
        {"result", [](const Bytes& b) { return tools::read_result_answer(b, 3).verdict; }, 8, 135},
        {"date", [](const Bytes& b) { return tools::read_date_answer(b).verdict; }, 16, 16},
        {"card", [](const Bytes& b) { return tools::card_answer(b).verdict; }, 8, 8},
        {"rf read of 4", [](const Bytes& b) { return tools::read_table_answer(b, 4).verdict; }, 8, 8},
    };
    for (const Range& r : ranges) {
        EXPECT_EQ(r.read(Bytes(r.least, 0)), Verdict::kAccepted) << r.what << " of " << r.least;
        EXPECT_EQ(r.read(Bytes(r.most, 0)), Verdict::kAccepted) << r.what << " of " << r.most;
        EXPECT_EQ(r.read(Bytes(r.least - 1, 0)), Verdict::kMalformed) << r.what << " of " << r.least - 1;
        EXPECT_EQ(r.read(Bytes(r.most + 1, 0)), Verdict::kMalformed) << r.what << " of " << r.most + 1;
    }
    // A refused read hands on what was there, up to the whole range.
    auto partial = tools::read_table_answer(hex("0A 00 00 00 01 02 03 04"), 4);
    EXPECT_EQ(partial.verdict, Verdict::kRefused);
    EXPECT_EQ(partial.data, hex("01 02 03 04"));
}

}  // namespace
