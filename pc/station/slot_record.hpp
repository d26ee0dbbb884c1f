// What one slot did: the record that goes into the phone's JSON file and the
// run's JUnit file.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace station {

enum class StepVerdict { kPass, kFail, kNotRun, kStopped };

// "pass", "fail", "not-run", "stopped".
const char* verdict_name(StepVerdict verdict);

struct StepRecord {
    size_t index = 0;  // from 1, in plan order; the verdict step last
    std::string name;
    std::string command;
    nlohmann::json request = nlohmann::json::object();   // the arguments, the frame sent
    nlohmann::json answer = nlohmann::json::object();    // the decoded answer, the frame that came
    nlohmann::json measured = nullptr;                   // the value the answer carried
    nlohmann::json limits = nlohmann::json::object();    // the expectations, placeholders put in
    StepVerdict verdict = StepVerdict::kNotRun;
    std::string reason;   // why it failed or did not run
    double seconds = 0;
};

struct SlotRecord {
    size_t slot = 1;
    size_t phone = 0;  // the phone's number on its slot in a loop, from 1; 0 for a single run
    std::string device;
    std::string board;
    nlohmann::json board_read = nullptr;  // the board number read from the phone, when the station asked
    std::string started;  // UTC, ISO 8601
    double seconds = 0;
    std::vector<StepRecord> steps;
    bool passed = false;      // the phone passed and holds pass (when the plan writes the verdict)
    bool unknown = false;     // the verdict write went unanswered: neither pass nor fail
    bool stopped = false;     // Ctrl-C ended it
    std::string failed_step;  // name of the first failed step
    std::string reason;       // its reason, or why the slot did not start
    // What the phone holds at the station's line after the verdict: whether
    // it was written, the result read back, or why nothing was written.
    // Null when the plan writes no verdict.
    nlohmann::json stored = nullptr;
};

// "pass", "fail", "unknown" or "stopped".
const char* slot_verdict_name(const SlotRecord& record);

}  // namespace station
