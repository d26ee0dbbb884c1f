#include "pc/station/step_exchange.hpp"

#include "pc/lib/answer_json.hpp"
#include "pc/lib/hex_text.hpp"
#include "pc/lib/pc_answers.hpp"
#include "pc/lib/pc_requests.hpp"
#include "pc/lib/table_transfer.hpp"

namespace station {
namespace {

// Data bytes kept in a record as hex; a longer transfer keeps its count only.
constexpr size_t kRecordDataMax = 4096;

// Any command's answer: accepted whenever a frame with a good CRC came.
tools::Answer any_answer(std::span<const uint8_t> body, uint32_t cmd) {
    tools::Answer a;
    a.verdict = tools::Verdict::kAccepted;
    a.text = "answer " + std::to_string(cmd + 1) + ", " + std::to_string(body.size()) + " body bytes";
    a.data.assign(body.begin(), body.end());
    return a;
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

tools::Outcome transfer(tools::PcLink& link, const Step& step, StepRecord& r, Measured& got,
                        const RfProgress& progress) {
    const tools::TableRange range{step.table, step.offset, step.len, step.slice};
    r.request = {{"table", step.table}, {"offset", step.offset}, {"len", step.len}, {"slice", step.slice}};
    auto seen = [&](const tools::Exchange&, size_t done) {
        if (progress) progress(done);
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

}  // namespace

nlohmann::json hex_or_count(const std::vector<uint8_t>& data) {
    if (data.size() <= kRecordDataMax) return tools::to_hex(data);
    return std::to_string(data.size()) + " bytes";
}

tools::Outcome exchange_step(tools::PcLink& link, const Step& step, const SlotValues& values, StepRecord& r, Measured& got,
                             const RfProgress& progress) {
    const std::string text = expand(step.text, values.board, values.slot, values.today);
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
        case Command::kRfWrite: return transfer(link, step, r, got, progress);
    }
    return o;
}

}  // namespace station
