#include "pc/station/records.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "pc/lib/whole_file.hpp"

namespace station {

nlohmann::json slot_json(const Plan& plan, const SlotRecord& r) {
    nlohmann::json steps = nlohmann::json::array();
    for (const StepRecord& s : r.steps) {
        steps.push_back({{"index", s.index},
                         {"name", s.name},
                         {"command", s.command},
                         {"request", s.request},
                         {"answer", s.answer},
                         {"measured", s.measured},
                         {"limits", s.limits},
                         {"verdict", verdict_name(s.verdict)},
                         {"reason", s.reason},
                         {"duration_ms", static_cast<int64_t>(s.seconds * 1000 + 0.5)}});
    }
    nlohmann::json j = {{"plan", {{"file", plan.path}, {"station", nullptr}, {"steps", plan.steps.size()}}},
                        {"slot", r.slot},
                        {"phone", r.phone},
                        {"device", r.device},
                        {"board", r.board},
                        {"started", r.started},
                        {"duration_ms", static_cast<int64_t>(r.seconds * 1000 + 0.5)},
                        {"verdict", slot_verdict_name(r)},
                        {"failed_step", r.failed_step},
                        {"reason", r.reason},
                        {"stored", r.stored},
                        {"steps", steps}};
    if (plan.station) j["plan"]["station"] = *plan.station;
    if (!r.board_read.is_null()) j["board_read"] = r.board_read;
    return j;
}

const char* slot_verdict_name(const SlotRecord& r) {
    return r.stopped ? "stopped" : r.unknown ? "unknown" : r.passed ? "pass" : "fail";
}

std::string slot_file_name(const SlotRecord& record) {
    std::string name = "slot-" + std::to_string(record.slot);
    if (record.phone > 0) {
        char number[32];
        snprintf(number, sizeof(number), "-%04zu", record.phone);
        name += number;
    }
    return name + ".json";
}

std::string xml_escape(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&apos;"; break;
            default:
                if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') {
                    out += "\xEF\xBF\xBD";
                } else {
                    out.push_back(static_cast<char>(c));
                }
        }
    }
    return out;
}

namespace {

std::string seconds_text(double seconds) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f", seconds);
    return text;
}

}  // namespace

JunitSuite junit_suite(const SlotRecord& r) {
    JunitSuite suite;
    std::string cases;
    size_t failures = 0;
    size_t skipped = 0;
    const std::string classname = "slot" + std::to_string(r.slot) + (r.phone > 0 ? "." + std::to_string(r.phone) : "");
    // A slot whose line did not open has no step that ran: the opening is
    // its one failed case.
    std::vector<StepRecord> steps = r.steps;
    if (steps.empty() && !r.reason.empty()) {
        StepRecord open;
        open.index = 0;
        open.name = r.failed_step;
        open.verdict = StepVerdict::kFail;
        open.reason = r.reason;
        steps.push_back(open);
    }
    for (const StepRecord& s : steps) {
        cases += "    <testcase classname=\"" + xml_escape(classname) + "\" name=\"" +
                 xml_escape(std::to_string(s.index) + " " + s.name) + "\" time=\"" + seconds_text(s.seconds) + "\"";
        if (s.verdict == StepVerdict::kPass) {
            cases += "/>\n";
            continue;
        }
        cases += ">\n";
        if (s.verdict == StepVerdict::kFail) {
            ++failures;
            cases += "      <failure message=\"" + xml_escape(s.reason) + "\" type=\"" + xml_escape(s.command) + "\">" +
                     xml_escape(s.answer.dump()) + "</failure>\n";
        } else {
            ++skipped;
            cases += "      <skipped message=\"" + xml_escape(s.reason) + "\"/>\n";
        }
        cases += "    </testcase>\n";
    }
    suite.xml = "  <testsuite name=\"" + xml_escape(classname + " " + r.device + (r.board.empty() ? "" : " " + r.board)) +
                "\" tests=\"" + std::to_string(steps.size()) + "\" failures=\"" + std::to_string(failures) +
                "\" errors=\"0\" skipped=\"" + std::to_string(skipped) + "\" time=\"" + seconds_text(r.seconds) +
                "\" timestamp=\"" + xml_escape(r.started) + "\">\n" + cases + "  </testsuite>\n";
    suite.tests = steps.size();
    suite.failures = failures;
    suite.skipped = skipped;
    suite.seconds = r.seconds;
    return suite;
}

std::string junit_document(const Plan& plan, const std::vector<JunitSuite>& suites) {
    size_t tests = 0;
    size_t failures = 0;
    size_t skipped = 0;
    double total = 0;
    size_t size = 0;
    for (const JunitSuite& s : suites) {
        tests += s.tests;
        failures += s.failures;
        skipped += s.skipped;
        total = std::max(total, s.seconds);
        size += s.xml.size();
    }
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites name=\"" +
                       xml_escape("ovta-station " + plan.name) + "\" tests=\"" + std::to_string(tests) +
                       "\" failures=\"" + std::to_string(failures) + "\" errors=\"0\" skipped=\"" +
                       std::to_string(skipped) + "\" time=\"" + seconds_text(total) + "\">\n";
    text.reserve(text.size() + size + 16);
    for (const JunitSuite& s : suites) text += s.xml;
    return text + "</testsuites>\n";
}

std::string junit_xml(const Plan& plan, const std::vector<SlotRecord>& records) {
    std::vector<JunitSuite> suites;
    for (const SlotRecord& r : records) suites.push_back(junit_suite(r));
    return junit_document(plan, suites);
}

bool write_whole(const std::string& path, const std::string& text, std::string* error) {
    std::unique_ptr<tools::WholeFile> file = tools::WholeFile::open(path, error);
    if (!file) return false;
    if (!file->write(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()))) {
        *error = "cannot write " + path;
        return false;
    }
    return file->commit(error);
}

}  // namespace station
