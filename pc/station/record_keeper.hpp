// Where finished phones' records go while the station runs: each phone's
// JSON file is written whole into the run's folder as soon as the phone is
// done (on its slot's thread), and its JUnit suite kept for the run's JUnit
// file, which the main thread rewrites whole (write_junit) while a loop runs
// and once more at the end. One mutex guards the suites, the counts and the
// write failures; the files of two phones never share a name.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "pc/station/plan.hpp"
#include "pc/station/records.hpp"
#include "pc/station/slot_record.hpp"

namespace station {

class RecordKeeper {
public:
    RecordKeeper(const Plan& plan, std::string folder, std::string junit_path)
        : plan_(plan), folder_(std::move(folder)), junit_path_(std::move(junit_path)) {}

    // Slot threads: writes the phone's record and keeps its suite.
    void keep(const SlotRecord& record);
    // Main thread: rewrites the JUnit file if a phone was kept since the
    // last time. False, with the reason in `error`, when it failed.
    bool write_junit(std::string* error);

    struct Counts {
        size_t phones = 0;
        size_t passed = 0;
    };
    Counts counts() const;
    // The write failures so far, each once.
    std::vector<std::string> take_errors();
    // One line for each phone that did not pass, in the order they ended:
    // "slot 3 phone 2 /dev/ttyACM2 SN-0042: failed at "card": REASON".
    std::vector<std::string> not_passed() const;
    const std::string& folder() const { return folder_; }

private:
    const Plan& plan_;
    const std::string folder_;
    const std::string junit_path_;
    mutable std::mutex mu_;
    // Guarded by mu_: the suites by slot and phone, for the JUnit file's order.
    std::vector<std::pair<std::pair<size_t, size_t>, JunitSuite>> suites_;
    bool junit_due_ = false;
    Counts counts_;
    std::vector<std::string> errors_;
    std::vector<std::string> not_passed_;
};

}  // namespace station
