#include "pc/lib/answer_json.hpp"

#include "pc/lib/hex_text.hpp"

namespace tools {

nlohmann::json judged_json(const std::string& command, const Judged& judged) {
    nlohmann::json j = {{"command", command}, {"outcome", outcome_name(judged.outcome)}, {"text", judged.answer.text}};
    const bool answered = judged.outcome == Outcome::kAccepted || judged.outcome == Outcome::kRefused ||
                          judged.outcome == Outcome::kNoStation;
    if (!answered) return j;
    j["result_code"] = judged.answer.result_code;
    if (judged.outcome != Outcome::kAccepted) return j;
    if (!judged.answer.value.empty()) j["value"] = judged.answer.value;
    if (judged.answer.number) j["number"] = *judged.answer.number;
    return j;
}

nlohmann::json frame_json(const DecodedPcFrame& frame) {
    nlohmann::json j = {{"cmd", frame.cmd},
                        {"frame_len", frame.frame_len},
                        {"body", to_hex(frame.body)},
                        {"crc_ok", frame.crc_ok()}};
    if (auto word = frame.result_word()) j["result_word"] = *word;
    return j;
}

nlohmann::json transfer_json(const std::string& command, const TransferEnd& end) {
    return {{"command", command}, {"outcome", outcome_name(end.outcome)}, {"text", end.last_text}, {"bytes", end.done}};
}

}  // namespace tools
