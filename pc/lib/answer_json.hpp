// The PC side's answers as JSON, for station scripts (`ovta-pc --json`) and
// for the station's records: every field that an answer carries, by name.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "pc/lib/pc_exchange.hpp"
#include "pc/lib/table_transfer.hpp"

namespace tools {

// {"command", "outcome", "text"}, and for an answer that came "result_code",
// then "value" (a text read back), "number" (card KiB, a station's result)
// where the answer carries them.
nlohmann::json judged_json(const std::string& command, const Judged& judged);

// A frame decoded: {"cmd", "frame_len", "body" (hex), "crc_ok"}, and
// "result_word" when the body has one.
nlohmann::json frame_json(const DecodedPcFrame& frame);

// An RF transfer: {"command", "outcome", "text", "bytes"}.
nlohmann::json transfer_json(const std::string& command, const TransferEnd& end);

}  // namespace tools
