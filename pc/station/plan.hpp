// A station's test plan: what ovta-station does on every phone of a fixture,
// read from a TOML file. A plan that cannot be run as written (an unknown
// command or key, a bad number or limit, a golden file that is not there) is
// refused whole, with the file, the line and the reason, before any phone is
// touched.
//
//   station = 12                  # the station number; the verdict goes there
//   verdict = true                # write the verdict with command 91 at the end
//   timeout_ms = 3000             # wait for each answer this long (default 3000)
//   verdict_timeout_ms = 5000     # wait for the verdict's answer at least this long
//                                 # (default 5000, and never less than timeout_ms + 2000)
//   boards = ["SN-0001", "SN-0002"]   # {board}: one per slot, in slot order, unless
//                                     # ovta-station is given --board or --boards
//
//   [[step]]
//   name = "board number"         # optional; the command by default
//   command = "board set"
//   value = "{board}"
//
//   [[step]]
//   command = "board get"
//   expect = { equals = "{board}" }
//
// Commands, as ovta-pc names them, with their keys: "enter-amt" (wf_name,
// mode), "version" (module), "date get", "date set" (value), "board get",
// "board set" (value), "result get" (station), "result set" (station,
// result, description), "rf read" (table, offset, len, slice), "rf write"
// (table, offset, len, slice and one of data = hex text or file = path),
// "card", and "send" (cmd, body = hex text) for any command that wfmgr
// answers. Every step may set timeout_ms.
//
// Expectations, beside an accepted answer: equals (the text read back),
// matches (a regular expression over it), min and max (the number: a card's
// KiB, a station's result, the result word of a send), bytes (hex: the data of
// an rf read or the body of a send's answer), golden (a file the rf read must
// equal) and written = true (an rf read equal to what an earlier rf write of
// the plan wrote to the same place).
//
// Texts may hold {board} (the slot's board number), {slot} (its number from
// 1) and {today} (the run's date, YYYY-MM-DD). Paths are taken from the plan
// file's directory.
#pragma once

#include <cstdint>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace station {

enum class Command {
    kEnterAmt,
    kVersion,
    kDateGet,
    kDateSet,
    kBoardGet,
    kBoardSet,
    kResultGet,
    kResultSet,
    kRfRead,
    kRfWrite,
    kCard,
    kSend,
};

// "enter-amt", "rf read", ...
const char* command_name(Command command);

struct Expectation {
    std::optional<std::string> equals;   // may hold {board}, {slot}, {today}
    std::optional<std::string> matches;  // the pattern as written
    std::optional<std::regex> pattern;
    std::optional<int64_t> min;
    std::optional<int64_t> max;
    std::optional<std::vector<uint8_t>> bytes;
    std::optional<std::string> golden_path;  // as found, for the record
    std::vector<uint8_t> golden;             // its bytes, read with the plan
    std::optional<size_t> written_by;        // index of the rf write step
    bool any() const {
        return equals || matches || min || max || bytes || golden_path || written_by;
    }
};

struct Step {
    std::string name;
    Command command = Command::kVersion;
    int line = 0;  // of the plan file, for messages
    uint32_t timeout_ms = 3000;
    // Arguments; which ones count depends on the command.
    std::string text;  // wf_name, a date or board number, a description; may hold {board} etc.
    uint32_t number = 0;   // mode, module, station, cmd
    uint32_t result = 0;   // result set
    uint32_t table = 0;
    uint32_t offset = 0;
    uint32_t len = 0;
    uint32_t slice = 32 * 1024;
    std::vector<uint8_t> data;  // rf write data, send body
    Expectation expect;
};

struct Plan {
    std::string path;
    std::string name;  // the file name without its directory
    std::optional<uint32_t> station;
    bool verdict = false;
    uint32_t verdict_timeout_ms = 5000;  // the verdict write's whole wait, store creation included
    std::vector<std::string> boards;
    bool uses_board = false;  // some text holds {board}
    bool sets_board = false;  // some step is a "board set"
    std::vector<Step> steps;
};

// Reads and checks the plan. On refusal nothing, and `error` holds
// "FILE:LINE: reason" (or "FILE: reason" without a line).
std::optional<Plan> parse_plan(const std::string& path, std::string* error);

// The same from text, named `path` in messages; paths in the plan are taken
// from `path`'s directory.
std::optional<Plan> parse_plan_text(const std::string& text, const std::string& path, std::string* error);

// The text with {board}, {slot} and {today} put in.
std::string expand(const std::string& text, const std::string& board, size_t slot, const std::string& today);

}  // namespace station
