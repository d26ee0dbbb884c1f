#include "pc/station/slot_runner.hpp"

#include <chrono>
#include <termios.h>

#include "pc/lib/answer_json.hpp"
#include "pc/lib/hex_text.hpp"
#include "pc/lib/pc_answers.hpp"
#include "pc/lib/pc_exchange.hpp"
#include "pc/lib/pc_requests.hpp"
#include "pc/lib/serial_port.hpp"
#include "pc/lib/table_transfer.hpp"
#include "pc/station/expectation.hpp"
#include "pc/station/utc_text.hpp"
#include "pc/station/verdict.hpp"

namespace station {
namespace {

using Clock = std::chrono::steady_clock;

// Data bytes kept in a record as hex; a longer transfer keeps its count only.
constexpr size_t kRecordDataMax = 4096;

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

nlohmann::json hex_or_count(const std::vector<uint8_t>& data) {
    if (data.size() <= kRecordDataMax) return tools::to_hex(data);
    return std::to_string(data.size()) + " bytes";
}

// Any command's answer: accepted whenever a frame with a good CRC came.
tools::Answer any_answer(std::span<const uint8_t> body, uint32_t cmd) {
    tools::Answer a;
    a.verdict = tools::Verdict::kAccepted;
    a.text = "answer " + std::to_string(cmd + 1) + ", " + std::to_string(body.size()) + " body bytes";
    a.data.assign(body.begin(), body.end());
    return a;
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
        UniqueFd own;
        int fd = setup_.line_fd;
        if (fd < 0) {
            own = tools::open_raw_serial(setup_.device, &error);
            fd = own.get();
        }
        if (fd < 0) {
            record_.reason = error;
            record_.failed_step = "open the line";
        } else {
            // What waits on the line is no answer to the plan: earlier
            // frames, or the handshake the agent offers until the PC writes.
            tcflush(fd, TCIFLUSH);
            tools::PcLink link(fd, setup_.stop_fd);
            if (setup_.read_board) read_board(link);
            run_steps(link);
        }
        record_.seconds = seconds_since(start);
        record_.passed = record_.failed_step.empty() && !record_.stopped && !record_.unknown;
        board_.update(setup_.slot, [&](SlotStatus& s) {
            s.finished = true;
            s.ended = Clock::now();
            s.verdict = record_.stopped ? "stopped" : record_.unknown ? "UNKNOWN" : record_.passed ? "pass" : "FAIL";
        });
        return std::move(record_);
    }

private:
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
                record_.steps.push_back(std::move(r));
                continue;
            }
            talking = run_step(link, step, r);
            record_.steps.push_back(std::move(r));
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
        const tools::Outcome o = exchange(link, step, r, got);
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
        tools::Outcome outcome = exchange(link, step, r, got);
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

    // One exchange whose answer `read` decodes.
    tools::Outcome single(tools::PcLink& link, const Step& step, uint32_t cmd, const std::vector<uint8_t>& body,
                          const tools::AnswerReader& read, StepRecord& r, tools::Judged* judged) {
        r.request["cmd"] = cmd;
        r.request["body"] = tools::to_hex(body);
        tools::Exchange ex = link.exchange(cmd, body, std::chrono::milliseconds(step.timeout_ms));
        r.request["frame"] = tools::to_hex(ex.sent);
        *judged = tools::judge(ex, read);
        r.answer = tools::judged_json(r.name, *judged);
        r.answer.erase("command");
        nlohmann::json frames = nlohmann::json::array();
        for (const tools::SeenFrame& f : ex.frames) {
            if (f.role == tools::FrameRole::kAnswer) r.answer["frame"] = tools::to_hex(f.bytes);
            if (f.role == tools::FrameRole::kOther) frames.push_back(tools::to_hex(f.bytes));
        }
        if (!frames.empty()) r.answer["other_frames"] = frames;
        return judged->outcome;
    }

    tools::Outcome exchange(tools::PcLink& link, const Step& step, StepRecord& r, Measured& got) {
        const std::string text = expand(step.text, values_.board, values_.slot, values_.today);
        tools::Judged j;
        tools::Outcome o = tools::Outcome::kNothing;
        switch (step.command) {
            case Command::kEnterAmt: {
                const uint32_t mode = step.number;
                r.request = {{"wf_name", text}, {"mode", mode}};
                auto body = tools::enter_amt_body(mode, text);
                if (!body) {
                    r.answer = {{"text", "wf_name holds 1 to 63 bytes"}};
                    return tools::Outcome::kRefused;
                }
                return single(link, step, tools::kCmdEnterAmt, *body,
                              [mode](std::span<const uint8_t> b) { return tools::enter_amt_answer(b, mode); }, r, &j);
            }
            case Command::kVersion:
                r.request = {{"module", step.number}};
                o = single(link, step, tools::kCmdVersion, tools::version_body(step.number), tools::version_answer, r, &j);
                if (o == tools::Outcome::kAccepted) got.text = j.answer.value;
                return o;
            case Command::kDateGet:
            case Command::kBoardGet: {
                const bool date = step.command == Command::kDateGet;
                o = single(link, step, date ? tools::kCmdReadDate : tools::kCmdReadBoard, {},
                           date ? tools::read_date_answer : tools::read_board_answer, r, &j);
                if (o == tools::Outcome::kAccepted) got.text = j.answer.value;
                return o;
            }
            case Command::kDateSet:
            case Command::kBoardSet: {
                const bool date = step.command == Command::kDateSet;
                r.request = {{"value", text}};
                return single(link, step, date ? tools::kCmdWriteDate : tools::kCmdWriteBoard, tools::text_body(text),
                              date ? tools::write_date_answer : tools::write_board_answer, r, &j);
            }
            case Command::kResultGet: {
                const uint32_t site = step.number;
                r.request = {{"station", site}};
                o = single(link, step, tools::kCmdReadResult, tools::read_result_body(site),
                           [site](std::span<const uint8_t> b) { return tools::read_result_answer(b, site); }, r, &j);
                if (o == tools::Outcome::kAccepted) {
                    got.text = j.answer.value;
                    got.number = j.answer.number.value_or(0);
                }
                return o;
            }
            case Command::kResultSet: {
                const uint32_t site = step.number;
                r.request = {{"station", site}, {"result", step.result}, {"description", text}};
                return single(link, step, tools::kCmdWriteResult, tools::write_result_body(site, step.result, text),
                              [site](std::span<const uint8_t> b) { return tools::write_result_answer(b, site); }, r,
                              &j);
            }
            case Command::kCard:
                o = single(link, step, tools::kCmdCard, {}, tools::card_answer, r, &j);
                if (o == tools::Outcome::kAccepted) got.number = j.answer.number.value_or(0);
                return o;
            case Command::kSend: {
                const uint32_t cmd = step.number;
                o = single(link, step, cmd, step.data,
                           [cmd](std::span<const uint8_t> b) { return any_answer(b, cmd); }, r, &j);
                if (o == tools::Outcome::kAccepted) {
                    got.bytes = j.answer.data;
                    if (j.answer.data.size() >= 4) {
                        got.number = static_cast<int64_t>(j.answer.data[0] | j.answer.data[1] << 8 |
                                                          j.answer.data[2] << 16 |
                                                          static_cast<uint32_t>(j.answer.data[3]) << 24);
                    }
                    r.answer["body"] = tools::to_hex(j.answer.data);
                }
                return o;
            }
            case Command::kRfRead:
            case Command::kRfWrite: return transfer(link, step, r, got);
        }
        return o;
    }

    tools::Outcome transfer(tools::PcLink& link, const Step& step, StepRecord& r, Measured& got) {
        const tools::TableRange range{step.table, step.offset, step.len, step.slice};
        r.request = {{"table", step.table}, {"offset", step.offset}, {"len", step.len}, {"slice", step.slice}};
        auto seen = [&](const tools::Exchange&, size_t done) {
            board_.update(setup_.slot, [&](SlotStatus& s) { s.rf_done = done; });
        };
        const auto timeout = std::chrono::milliseconds(step.timeout_ms);
        tools::TransferEnd end;
        if (step.command == Command::kRfWrite) {
            r.request["data"] = hex_or_count(step.data);
            end = tools::write_table(link, range, step.data, timeout, seen);
        } else {
            std::vector<uint8_t> data;
            end = tools::read_table(
                link, range, timeout,
                [&](std::span<const uint8_t> bytes) {
                    data.insert(data.end(), bytes.begin(), bytes.end());
                    return true;
                },
                seen);
            if (end.outcome == tools::Outcome::kAccepted) got.bytes = data;
        }
        r.answer = tools::transfer_json(r.name, end);
        r.answer.erase("command");
        return end.outcome;
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
        const tools::Outcome wrote = exchange(link, step, r, unused);
        VerdictInputs in{plan_passed, wrote, std::nullopt};
        nlohmann::json stored = {{"station", *plan_.station}};
        stored["written"] = wrote == tools::Outcome::kAccepted ? nlohmann::json(true)
                            : write_answered(wrote)           ? nlohmann::json(false)
                                                              : nullptr;
        if (wrote == tools::Outcome::kStopped) {
            r.verdict = StepVerdict::kStopped;
            r.reason = "stopped (Ctrl-C)";
            r.seconds = seconds_since(start);
            record_.stopped = true;
            stored["reason"] = "stopped while the verdict was written";
            record_.stored = std::move(stored);
            report(r);
            record_.steps.push_back(std::move(r));
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
        record_.steps.push_back(std::move(r));
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
        const tools::Outcome o = exchange(link, step, r, got);
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
