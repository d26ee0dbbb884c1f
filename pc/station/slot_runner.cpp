#include "pc/station/slot_runner.hpp"

#include <chrono>

#include "pc/lib/hex_text.hpp"
#include "pc/lib/pc_answers.hpp"
#include "pc/lib/pc_exchange.hpp"
#include "pc/station/expectation.hpp"
#include "pc/station/step_exchange.hpp"
#include "pc/station/utc_text.hpp"
#include "pc/station/verdict.hpp"

namespace station {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Whether the phone still talked when the step failed.
bool phone_answered(tools::Outcome outcome) {
    return outcome == tools::Outcome::kAccepted || outcome == tools::Outcome::kRefused ||
           outcome == tools::Outcome::kNoStation || outcome == tools::Outcome::kMalformed;
}

// The reason of a step whose line failed, with what the link said when it
// says more.
std::string line_failed(const std::string& said) {
    const std::string reason = "the line failed or hung up";
    return said.empty() || said == "the line failed" ? reason : reason + ": " + said;
}

class Slot {
public:
    Slot(const Plan& plan, const SlotSetup& setup, StatusBoard& board)
        : plan_(plan), setup_(setup), board_(board), values_{setup.board, setup.slot, setup.today} {}

    SlotRecord run() {
        const Clock::time_point start = Clock::now();
        record_.slot = setup_.slot;
        record_.phone = setup_.phone;
        record_.device = setup_.device;
        record_.board = setup_.board;
        record_.started = utc_time_stamp();
        std::string error;
        pcos::Line own;
        pcos::Line* line = setup_.line;
        if (line == nullptr) {
            own = pcos::Line::open(setup_.device, &error);
            line = &own;
        }
        if (!line->valid()) {
            record_.reason = error;
            record_.failed_step = "open the line";
        } else {
            // What waits on the line is no answer to the plan: earlier
            // frames, or the handshake the agent offers until the PC writes.
            line->discard_input();
            tools::PcLink link(*line, setup_.stop);
            if (setup_.read_board) read_board(link);
            if (setup_.watcher != nullptr) setup_.watcher->started(record_);
            run_steps(link);
        }
        record_.seconds = seconds_since(start);
        record_.passed = record_.failed_step.empty() && !record_.stopped && !record_.unknown;
        board_.update(setup_.slot, [&](SlotStatus& s) {
            s.finished = true;
            s.ended = Clock::now();
            s.verdict = record_.stopped ? "stopped" : record_.unknown ? "UNKNOWN" : record_.passed ? "pass" : "FAIL";
        });
        if (setup_.watcher != nullptr) setup_.watcher->finished(record_);
        return std::move(record_);
    }

private:
    void keep_step(StepRecord&& r) {
        record_.steps.push_back(std::move(r));
        if (setup_.watcher != nullptr) setup_.watcher->step_done(record_, record_.steps.back());
    }

    void run_steps(tools::PcLink& link) {
        bool talking = true;
        for (size_t i = 0; i < plan_.steps.size(); ++i) {
            const Step& step = plan_.steps[i];
            StepRecord r;
            r.index = i + 1;
            r.name = step.name;
            r.command = command_name(step.command);
            if (!record_.failed_step.empty() || record_.stopped) {
                r.verdict = StepVerdict::kNotRun;
                r.reason = record_.stopped ? "stopped before this step" : "step \"" + record_.failed_step + "\" failed";
                keep_step(std::move(r));
                continue;
            }
            talking = run_step(link, step, r);
            keep_step(std::move(r));
        }
        if (!plan_.verdict) return;
        if (record_.stopped) {
            record_.stored = {{"written", false}, {"reason", "stopped before the verdict"}};
        } else if (!talking) {
            record_.stored = {{"written", false},
                              {"reason", "the phone stopped answering before the verdict: nothing was written to it"}};
        } else {
            write_verdict(link);
        }
    }

    // The board number as the phone holds it, for the record and the table.
    void read_board(tools::PcLink& link) {
        Step step;
        step.name = "board number for the record";
        step.command = Command::kBoardGet;
        step.timeout_ms = plan_.steps.front().timeout_ms;
        StepRecord r;
        Measured got;
        const tools::Outcome o = exchange_step(link, step, values_, r, got, progress_);
        if (o == tools::Outcome::kStopped) record_.stopped = true;
        record_.board_read = r.answer;
        if (o != tools::Outcome::kAccepted || !got.text) return;
        record_.board = *got.text;
        values_.board = *got.text;
        board_.update(setup_.slot, [&](SlotStatus& s) { s.board = record_.board; });
    }

    // Runs one step into `r`; false when the phone stopped answering.
    bool run_step(tools::PcLink& link, const Step& step, StepRecord& r) {
        const Clock::time_point start = Clock::now();
        board_.update(setup_.slot, [&](SlotStatus& s) {
            s.step = r.index;
            s.step_name = step.name;
            s.rf_done = 0;
            s.rf_total = step.command == Command::kRfRead || step.command == Command::kRfWrite ? step.len : 0;
        });
        Measured got;
        tools::Outcome outcome = exchange_step(link, step, values_, r, got, progress_);
        r.limits = limits(step);
        if (got.text) r.measured = *got.text;
        if (got.number) r.measured = *got.number;
        if (got.bytes) r.measured = hex_or_count(*got.bytes);
        if (got.text && got.number) r.measured = {{"text", *got.text}, {"number", *got.number}};
        if (outcome == tools::Outcome::kStopped) {
            r.verdict = StepVerdict::kStopped;
            r.reason = "stopped (Ctrl-C)";
            record_.stopped = true;
        } else if (outcome != tools::Outcome::kAccepted) {
            r.verdict = StepVerdict::kFail;
            r.reason = r.answer.value("text", std::string(tools::outcome_name(outcome)));
            if (outcome == tools::Outcome::kLineFailed) {
                r.reason = line_failed(r.reason);
            } else if (!phone_answered(outcome)) {
                r.reason += " within " + std::to_string(step.timeout_ms) + " ms";
            }
        } else {
            CheckResult c = check(step, plan_, got, values_);
            r.verdict = c.pass ? StepVerdict::kPass : StepVerdict::kFail;
            r.reason = c.why;
        }
        r.seconds = seconds_since(start);
        if (r.verdict == StepVerdict::kFail) {
            record_.failed_step = step.name;
            record_.reason = r.reason;
        }
        report(r);
        return outcome != tools::Outcome::kStopped && (r.verdict != StepVerdict::kFail || phone_answered(outcome));
    }

    void report(const StepRecord& r) {
        board_.update(setup_.slot, [&](SlotStatus& s) {
            if (r.verdict == StepVerdict::kPass) ++s.passed;
            if (r.verdict == StepVerdict::kFail) ++s.failed;
        });
        char line[200];
        snprintf(line, sizeof(line), "%s step %zu/%zu %s: %s (%.0f ms)", slot_name(setup_).c_str(), r.index,
                 plan_.steps.size() + (plan_.verdict ? 1 : 0), r.name.c_str(), verdict_name(r.verdict),
                 r.seconds * 1000);
        board_.finished_step(setup_.slot, r.reason.empty() ? line : std::string(line) + ": " + r.reason);
    }

    nlohmann::json limits(const Step& step) const {
        const Expectation& x = step.expect;
        nlohmann::json j = nlohmann::json::object();
        if (x.equals) j["equals"] = expand(*x.equals, values_.board, values_.slot, values_.today);
        if (x.matches) j["matches"] = *x.matches;
        if (x.min) j["min"] = *x.min;
        if (x.max) j["max"] = *x.max;
        if (x.bytes) j["bytes"] = tools::to_hex(*x.bytes);
        if (x.golden_path) j["golden"] = *x.golden_path;
        if (x.written_by) j["written_by_step"] = *x.written_by + 1;
        return j;
    }

    // Command 91 with the verdict, waiting out the store's creation, then
    // command 89 to see what the phone holds. The verdict's own failure
    // does not replace the first failed step.
    void write_verdict(tools::PcLink& link) {
        const bool plan_passed = record_.failed_step.empty();
        Step step;
        step.name = "verdict";
        step.command = Command::kResultSet;
        step.number = *plan_.station;
        step.result = plan_passed ? kVerdictPass : kVerdictFail;
        step.text = plan_passed ? "pass" : "fail: " + record_.failed_step;
        if (step.text.size() > 100) step.text.resize(100);
        step.timeout_ms = plan_.verdict_timeout_ms;
        StepRecord r;
        r.index = plan_.steps.size() + 1;
        r.name = step.name;
        r.command = command_name(step.command);
        board_.update(setup_.slot, [&](SlotStatus& s) {
            s.step = r.index;
            s.step_name = step.name;
            s.rf_total = 0;
        });
        const Clock::time_point start = Clock::now();
        Measured unused;
        const tools::Outcome wrote = exchange_step(link, step, values_, r, unused, progress_);
        VerdictInputs in{plan_passed, wrote, std::nullopt};
        nlohmann::json stored = {{"station", *plan_.station}};
        // Whether the phone stored it: yes, no (refused), or not known (no
        // answer, or one that could not be read).
        stored["written"] = wrote == tools::Outcome::kAccepted ? nlohmann::json(true)
                            : wrote == tools::Outcome::kRefused || wrote == tools::Outcome::kNoStation
                                ? nlohmann::json(false)
                                : nullptr;
        if (wrote == tools::Outcome::kStopped) {
            r.verdict = StepVerdict::kStopped;
            r.reason = "stopped (Ctrl-C)";
            r.seconds = seconds_since(start);
            record_.stopped = true;
            stored["reason"] = "stopped while the verdict was written";
            record_.stored = std::move(stored);
            report(r);
            keep_step(std::move(r));
            return;
        }
        if (write_answered(wrote)) read_back(link, step, in, stored);
        const VerdictCall call = decide_verdict(in);
        const bool pass = call.verdict == SlotVerdict::kPass;
        r.verdict = pass || (call.verdict == SlotVerdict::kFail && !plan_passed && wrote == tools::Outcome::kAccepted)
                        ? StepVerdict::kPass
                        : StepVerdict::kFail;
        r.reason = r.answer.value("text", std::string(tools::outcome_name(wrote)));
        if (wrote == tools::Outcome::kAccepted) r.reason.clear();
        if (wrote == tools::Outcome::kLineFailed) {
            r.reason = line_failed(r.reason);
        } else if (!write_answered(wrote)) {
            r.reason += " within " + std::to_string(step.timeout_ms) + " ms";
        }
        if (!call.why.empty()) r.reason = r.reason.empty() ? call.why : r.reason + "; " + call.why;
        if (!r.reason.empty()) stored["reason"] = r.reason;
        r.seconds = seconds_since(start);
        record_.unknown = call.verdict == SlotVerdict::kUnknown;
        if (plan_passed && !pass) {
            record_.failed_step = step.name;
            record_.reason = r.reason;
        }
        record_.stored = std::move(stored);
        report(r);
        keep_step(std::move(r));
    }

    // Command 89 for the station's line: what the phone holds now.
    void read_back(tools::PcLink& link, const Step& verdict, VerdictInputs& in, nlohmann::json& stored) {
        Step step;
        step.name = "verdict read back";
        step.command = Command::kResultGet;
        step.number = verdict.number;
        step.timeout_ms = plan_.steps.back().timeout_ms;
        StepRecord r;
        r.name = step.name;
        Measured got;
        const tools::Outcome o = exchange_step(link, step, values_, r, got, progress_);
        stored["read_back"] = {{"request", r.request}, {"answer", r.answer}};
        if (o != tools::Outcome::kAccepted || !got.number) return;
        in.held = static_cast<uint32_t>(*got.number);
        stored["result"] = *got.number;
        stored["description"] = got.text.value_or("");
    }

    const Plan& plan_;
    const SlotSetup& setup_;
    StatusBoard& board_;
    SlotValues values_;
    SlotRecord record_;
    // An RF transfer's bytes done, into the slot's row.
    const RfProgress progress_ = [this](size_t done) {
        board_.update(setup_.slot, [&](SlotStatus& s) { s.rf_done = done; });
    };
};

}  // namespace

const char* verdict_name(StepVerdict verdict) {
    switch (verdict) {
        case StepVerdict::kPass: return "pass";
        case StepVerdict::kFail: return "fail";
        case StepVerdict::kNotRun: return "not-run";
        case StepVerdict::kStopped: return "stopped";
    }
    return "not-run";
}

std::string slot_name(const SlotSetup& setup) {
    std::string name = "slot " + std::to_string(setup.slot);
    if (setup.phone > 0) name += " phone " + std::to_string(setup.phone);
    return name + " " + setup.device;
}

SlotRecord run_slot(const Plan& plan, const SlotSetup& setup, StatusBoard& board) {
    return Slot(plan, setup, board).run();
}

}  // namespace station
