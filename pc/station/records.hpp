// The run's records, for the factory's systems: one JSON file per phone and
// one JUnit XML file for the run (one test suite per phone, one test case per
// step), which dashboards and CI systems read, in a folder of the run's own
// (pc/station/run_folder.hpp). Each file is written whole to a temporary
// file and renamed into place, so a reader never sees half.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "pc/station/plan.hpp"
#include "pc/station/slot_record.hpp"

namespace station {

// The phone's record as JSON: the plan, the slot, device and board, the
// verdict and every step.
nlohmann::json slot_json(const Plan& plan, const SlotRecord& record);

// "slot-N.json", the phone's record's file name; "slot-N-KKKK.json" for the
// K-th phone of a slot in a loop.
std::string slot_file_name(const SlotRecord& record);

// One phone's test suite, made once when the phone is done, so that a loop
// rewrites its JUnit file from these without keeping whole records.
struct JunitSuite {
    std::string xml;
    size_t tests = 0;
    size_t failures = 0;
    size_t skipped = 0;
    double seconds = 0;
};
JunitSuite junit_suite(const SlotRecord& record);
std::string junit_document(const Plan& plan, const std::vector<JunitSuite>& suites);

// The JUnit XML text of the run.
std::string junit_xml(const Plan& plan, const std::vector<SlotRecord>& records);

// Text with the five XML specials escaped, and bytes that XML 1.0 cannot
// carry (control characters but tab, LF, CR) as U+FFFD.
std::string xml_escape(const std::string& text);

// Writes `text` to `path` whole: into a temporary file beside it, synced,
// renamed, and the folder synced, so that a crash or a power cut leaves the
// whole file or none. False, with the reason in `error`, on failure.
bool write_whole(const std::string& path, const std::string& text, std::string* error);

}  // namespace station
