#include "pc/station/record_keeper.hpp"

#include <algorithm>

namespace station {

void RecordKeeper::keep(const SlotRecord& record) {
    std::string error;
    const std::string path = folder_ + "/" + slot_file_name(record);
    const bool written = write_whole(path, slot_json(plan_, record).dump(2) + "\n", &error);
    JunitSuite suite = junit_suite(record);
    std::lock_guard<std::mutex> lock(mu_);
    if (!written) errors_.push_back(error);
    const std::pair<size_t, size_t> key{record.slot, record.phone};
    auto at = std::upper_bound(suites_.begin(), suites_.end(), key,
                               [](const auto& k, const auto& entry) { return k < entry.first; });
    suites_.insert(at, {key, std::move(suite)});
    junit_due_ = true;
    ++counts_.phones;
    if (record.passed) {
        ++counts_.passed;
        return;
    }
    std::string line = "slot " + std::to_string(record.slot);
    if (record.phone > 0) line += " phone " + std::to_string(record.phone);
    line += " " + record.device + (record.board.empty() ? "" : " " + record.board) + ": ";
    line += record.stopped ? "stopped" : record.unknown ? "verdict unknown" : "failed";
    if (!record.failed_step.empty()) line += " at \"" + record.failed_step + "\"";
    if (!record.reason.empty()) line += ": " + record.reason;
    not_passed_.push_back(std::move(line));
}

std::vector<std::string> RecordKeeper::not_passed() const {
    std::lock_guard<std::mutex> lock(mu_);
    return not_passed_;
}

bool RecordKeeper::write_junit(std::string* error) {
    std::string text;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (!junit_due_) return true;
        std::vector<JunitSuite> suites;
        suites.reserve(suites_.size());
        for (const auto& entry : suites_) suites.push_back(entry.second);
        text = junit_document(plan_, suites);
        junit_due_ = false;
    }
    if (write_whole(junit_path_, text, error)) return true;
    std::lock_guard<std::mutex> lock(mu_);
    junit_due_ = true;
    return false;
}

RecordKeeper::Counts RecordKeeper::counts() const {
    std::lock_guard<std::mutex> lock(mu_);
    return counts_;
}

std::vector<std::string> RecordKeeper::take_errors() {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<std::string> out;
    out.swap(errors_);
    return out;
}

}  // namespace station
