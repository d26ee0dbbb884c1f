// What the PC test tool makes of the agent's answer to each command it
// answers itself: one line of text and a verdict. Each function takes the
// body of the answer frame (the bytes behind cmd, without frame_crc) and,
// where the answer alone does not say it, what the request asked for.
//
// The first word of every answer is result_code: 0 done, 10 failed; the
// enter-AMT answer uses 1 for a path that could not be rewritten, and the
// test result read 3 for a station without a line. An answer whose size does
// not fit its command is reported as malformed rather than guessed at.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tools {

enum class Verdict {
    kAccepted,   // result_code 0
    kRefused,    // any other result_code, but 3 of a test result read
    kNoStation,  // test result read: the store has no line for the station
    kMalformed,  // the answer has the wrong size for its command
};

struct Answer {
    Verdict verdict = Verdict::kMalformed;
    uint32_t result_code = 0;
    std::string text;           // one line, without a line end
    std::vector<uint8_t> data;  // table read: the bytes that came
    // What an accepted read carries: the version, date, board number or
    // description as printable text, and the card's KiB or a station's result.
    std::string value;
    std::optional<uint32_t> number;
};

// 18. amt_mode of the request: in mode 4 the agent rewrote its AMT path
// itself instead of asking wfmgr to load the name.
Answer enter_amt_answer(std::span<const uint8_t> body, uint32_t amt_mode);
// 46: "version: TEXT".
Answer version_answer(std::span<const uint8_t> body);
// 62: "rf read: N bytes". `len` is the count asked for; fewer bytes come with
// result 10 when the file ends first, and they are kept in `data`.
Answer read_table_answer(std::span<const uint8_t> body, uint32_t len);
// 64.
Answer write_table_answer(std::span<const uint8_t> body);
// 66: "production date: TEXT".
Answer read_date_answer(std::span<const uint8_t> body);
// 68.
Answer write_date_answer(std::span<const uint8_t> body);
// 86: "board number: TEXT".
Answer read_board_answer(std::span<const uint8_t> body);
// 88.
Answer write_board_answer(std::span<const uint8_t> body);
// 90: "station N: result R, description TEXT".
Answer read_result_answer(std::span<const uint8_t> body, uint32_t site_no);
// 92.
Answer write_result_answer(std::span<const uint8_t> body, uint32_t site_no);
// 138: "card: N KiB".
Answer card_answer(std::span<const uint8_t> body);

}  // namespace tools
