// The commands a plan's steps may name, with the keys each takes, and the
// expectations each one's answer can meet.
#include "pc/station/plan_reader.hpp"

namespace station {

const std::vector<CommandInfo>& commands() {
    static const std::vector<CommandInfo> table = {
        {"enter-amt", Command::kEnterAmt, {"wf_name", "mode"}},
        {"version", Command::kVersion, {"module"}},
        {"date get", Command::kDateGet, {}},
        {"date set", Command::kDateSet, {"value"}},
        {"board get", Command::kBoardGet, {}},
        {"board set", Command::kBoardSet, {"value"}},
        {"result get", Command::kResultGet, {"station"}},
        {"result set", Command::kResultSet, {"station", "result", "description"}},
        {"rf read", Command::kRfRead, {"table", "offset", "len", "slice"}},
        {"rf write", Command::kRfWrite, {"table", "offset", "len", "slice", "data", "file"}},
        {"card", Command::kCard, {}},
        {"send", Command::kSend, {"cmd", "body"}},
    };
    return table;
}

// The expectation kinds that a command's answer can meet.
bool expectation_fits(Command c, const std::string& kind) {
    const bool text = c == Command::kVersion || c == Command::kDateGet || c == Command::kBoardGet ||
                      c == Command::kResultGet;
    const bool number = c == Command::kCard || c == Command::kResultGet || c == Command::kSend;
    const bool bytes = c == Command::kRfRead || c == Command::kSend;
    if (kind == "equals" || kind == "matches") return text;
    if (kind == "min" || kind == "max") return number;
    if (kind == "bytes") return bytes;
    if (kind == "golden" || kind == "written") return c == Command::kRfRead;
    return false;
}

const char* command_name(Command command) {
    for (const CommandInfo& c : commands()) {
        if (c.command == command) return c.name;
    }
    return "?";
}

}  // namespace station
