// The plan's top level and its steps, with their typed values: each value
// is checked where it stands, and a refusal names its line.
#include <fstream>
#include <map>

#include "pc/lib/hex_text.hpp"
#include "pc/lib/pc_requests.hpp"
#include "pc/lib/table_transfer.hpp"
#include "pc/station/plan_reader.hpp"
#include "pc/station/verdict.hpp"

namespace station {
namespace {

// Largest file an rf write takes; it writes the first len bytes of it.
constexpr size_t kWriteFileMax = 64u << 20;

}  // namespace

PlanReader::PlanReader(std::string path, std::string* error) : path_(std::move(path)), error_(error) {
    const size_t slash = path_.rfind('/');
    dir_ = slash == std::string::npos ? std::string() : path_.substr(0, slash + 1);
}

std::optional<Plan> PlanReader::read(const toml::table& root) {
    Plan plan;
    plan.path = path_;
    const size_t slash = path_.rfind('/');
    plan.name = slash == std::string::npos ? path_ : path_.substr(slash + 1);
    uint32_t timeout_ms = 3000;
    uint32_t verdict_ms = 5000;
    const toml::array* steps = nullptr;
    for (auto&& [key, node] : root) {
        const std::string k(key.str());
        const int line = line_of(node);
        if (k == "station") {
            auto v = u32(node, "station");
            if (!v) return std::nullopt;
            plan.station = *v;
        } else if (k == "verdict") {
            if (!node.is_boolean()) return fail(line, "verdict is true or false");
            plan.verdict = node.value_or(false);
        } else if (k == "timeout_ms") {
            auto v = timeout(node);
            if (!v) return std::nullopt;
            timeout_ms = *v;
        } else if (k == "verdict_timeout_ms") {
            auto v = integer(node, "verdict_timeout_ms", 1, 24ll * 3600 * 1000);
            if (!v) return std::nullopt;
            verdict_ms = static_cast<uint32_t>(*v);
        } else if (k == "boards") {
            const toml::array* list = node.as_array();
            if (list == nullptr) return fail(line, "boards is a list of board numbers, one per slot");
            for (const toml::node& b : *list) {
                if (!b.is_string()) return fail(line_of(b), "a board number is a text");
                plan.boards.push_back(b.value_or(std::string()));
            }
        } else if (k == "step") {
            steps = node.as_array();
            if (steps == nullptr || !steps->is_array_of_tables()) return fail(line, "steps are [[step]] tables");
        } else {
            return fail(line_of(key), "unknown key " + k);
        }
    }
    if (steps == nullptr || steps->empty()) return fail(0, "the plan has no [[step]]");
    if (plan.verdict && !plan.station) return fail(0, "verdict = true needs the station number (station = N)");
    for (const toml::node& s : *steps) {
        auto step = read_step(*s.as_table(), timeout_ms, plan);
        if (!step) return std::nullopt;
        plan.sets_board = plan.sets_board || step->command == Command::kBoardSet;
        plan.steps.push_back(std::move(*step));
    }
    plan.verdict_timeout_ms = verdict_wait_ms(timeout_ms, verdict_ms);
    return plan;
}

std::nullopt_t PlanReader::fail(int line, const std::string& why) {
    *error_ = line > 0 ? path_ + ":" + std::to_string(line) + ": " + why : path_ + ": " + why;
    return std::nullopt;
}

std::optional<int64_t> PlanReader::integer(const toml::node& node, const std::string& what, int64_t least,
                                           int64_t most) {
    if (!node.is_integer()) return fail(line_of(node), what + " is a whole number");
    const int64_t v = node.value_or<int64_t>(0);
    if (v < least || v > most) {
        return fail(line_of(node), what + " is " + std::to_string(v) + ", outside " + std::to_string(least) +
                                       " to " + std::to_string(most));
    }
    return v;
}

std::optional<uint32_t> PlanReader::u32(const toml::node& node, const std::string& what) {
    auto v = integer(node, what, 0, 0xFFFFFFFFll);
    return v ? std::optional<uint32_t>(static_cast<uint32_t>(*v)) : std::nullopt;
}

std::optional<uint32_t> PlanReader::timeout(const toml::node& node) {
    auto v = integer(node, "timeout_ms", 1, 24ll * 3600 * 1000);
    return v ? std::optional<uint32_t>(static_cast<uint32_t>(*v)) : std::nullopt;
}

std::optional<std::string> PlanReader::text(const toml::node& node, const std::string& what) {
    if (!node.is_string()) return fail(line_of(node), what + " is a text");
    return node.value_or(std::string());
}

std::optional<std::vector<uint8_t>> PlanReader::hex(const toml::node& node, const std::string& what) {
    auto t = text(node, what);
    if (!t) return std::nullopt;
    auto bytes = tools::parse_hex(*t);
    if (!bytes) return fail(line_of(node), what + " is no hex byte string: " + *t);
    return bytes;
}

std::optional<std::vector<uint8_t>> PlanReader::file(const toml::node& node, const std::string& what, size_t max) {
    auto name = text(node, what);
    if (!name) return std::nullopt;
    const std::string path = !name->empty() && (*name)[0] == '/' ? *name : dir_ + *name;
    std::ifstream in(path, std::ios::binary);
    if (!in) return fail(line_of(node), what + " " + path + " cannot be read");
    std::vector<uint8_t> bytes;
    char buf[65536];
    while (in && bytes.size() <= max) {
        in.read(buf, sizeof(buf));
        bytes.insert(bytes.end(), buf, buf + in.gcount());
    }
    if (in.bad()) return fail(line_of(node), what + " " + path + " cannot be read");
    if (bytes.size() > max) return fail(line_of(node), what + " " + path + " is larger than " + std::to_string(max) + " bytes");
    return bytes;
}

bool PlanReader::placeholders_ok(const std::string& t, int line, Plan& plan) {
    for (size_t at = t.find('{'); at != std::string::npos; at = t.find('{', at + 1)) {
        const size_t end = t.find('}', at);
        const std::string name = end == std::string::npos ? t.substr(at) : t.substr(at, end - at + 1);
        if (name != "{board}" && name != "{slot}" && name != "{today}") {
            fail(line, "unknown placeholder " + name + " (there are {board}, {slot} and {today})");
            return false;
        }
        plan.uses_board = plan.uses_board || name == "{board}";
    }
    return true;
}

std::optional<Step> PlanReader::read_step(const toml::table& t, uint32_t timeout_ms, Plan& plan) {
    Step step;
    step.line = line_of(t);
    step.timeout_ms = timeout_ms;
    const toml::node* command = t.get("command");
    if (command == nullptr) return fail(step.line, "a step without command");
    auto name = text(*command, "command");
    if (!name) return std::nullopt;
    const CommandInfo* info = nullptr;
    for (const CommandInfo& c : commands()) {
        if (*name == c.name) info = &c;
    }
    if (info == nullptr) return fail(line_of(*command), "unknown command \"" + *name + "\"");
    step.command = info->command;
    step.name = *name;
    step.line = line_of(*command);
    const toml::node* data_file = nullptr;
    bool has_data = false;
    bool has_len = false;
    std::map<std::string, bool> seen;
    for (auto&& [key, node] : t) {
        const std::string k(key.str());
        const int line = line_of(node);
        seen[k] = true;
        if (k == "command" || k == "expect") continue;
        if (k == "name") {
            auto v = text(node, "name");
            if (!v) return std::nullopt;
            step.name = *v;
            continue;
        }
        if (k == "timeout_ms") {
            auto v = timeout(node);
            if (!v) return std::nullopt;
            step.timeout_ms = *v;
            continue;
        }
        bool known = false;
        for (const std::string& allowed : info->keys) known = known || allowed == k;
        if (!known) return fail(line_of(key), "unknown key " + k + " for " + info->name);
        std::optional<uint32_t> n;
        if (k == "wf_name" || k == "value" || k == "description") {
            auto v = text(node, k);
            if (!v || !placeholders_ok(*v, line, plan)) return std::nullopt;
            step.text = *v;
        } else if (k == "data" || k == "body") {
            auto v = hex(node, k);
            if (!v) return std::nullopt;
            step.data = std::move(*v);
            has_data = true;
        } else if (k == "file") {
            data_file = &node;
        } else if (!(n = u32(node, k))) {
            return std::nullopt;
        } else if (k == "table") {
            step.table = *n;
        } else if (k == "offset") {
            step.offset = *n;
        } else if (k == "len") {
            step.len = *n;
            has_len = true;
        } else if (k == "slice") {
            if (*n == 0 || *n > tools::kTableSliceMax) {
                return fail(line, "slice is 1 to " + std::to_string(tools::kTableSliceMax) + " bytes");
            }
            step.slice = *n;
        } else if (k == "result") {
            step.result = *n;
        } else {
            step.number = *n;  // mode, module, station, cmd
        }
    }
    if (!required(step, seen)) return std::nullopt;
    if (step.command == Command::kRfWrite) {
        if ((data_file != nullptr) == has_data) return fail(step.line, "rf write takes data = \"HEX\" or file = PATH");
        if (data_file != nullptr) {
            auto bytes = file(*data_file, "file", kWriteFileMax);
            if (!bytes) return std::nullopt;
            step.data = std::move(*bytes);
        }
        if (!has_len) step.len = static_cast<uint32_t>(step.data.size());
        if (step.data.size() < step.len) {
            return fail(step.line, "rf write of " + std::to_string(step.len) + " bytes has only " +
                                       std::to_string(step.data.size()));
        }
        step.data.resize(step.len);
    }
    // Checked once an rf write's len is known (its data's size when the plan gives none).
    if (step.command == Command::kRfRead || step.command == Command::kRfWrite) {
        if (!tools::range_fits(step.offset, step.len)) return fail(step.line, "offset + len runs past 4 GiB");
    }
    if (step.command == Command::kEnterAmt && !tools::enter_amt_body(step.number, step.text)) {
        return fail(step.line, "wf_name holds 1 to " + std::to_string(tools::kWfNameMax) + " bytes");
    }
    if (step.command == Command::kSend && step.data.size() > tools::kPcBodyMax) {
        return fail(step.line, "a body holds at most " + std::to_string(tools::kPcBodyMax) + " bytes");
    }
    if (step.command == Command::kResultSet && step.text.find_first_of("\r\n") != std::string::npos) {
        return fail(step.line, "a description holds no CR or LF");
    }
    if (const toml::node* e = t.get("expect")) {
        if (!read_expectation(*e, step, plan)) return std::nullopt;
    }
    return step;
}

bool PlanReader::required(const Step& step, const std::map<std::string, bool>& seen) {
    std::vector<std::string> need;
    switch (step.command) {
        case Command::kEnterAmt: need = {"wf_name"}; break;
        case Command::kDateSet:
        case Command::kBoardSet: need = {"value"}; break;
        case Command::kResultGet: need = {"station"}; break;
        case Command::kResultSet: need = {"station", "result"}; break;
        case Command::kRfRead: need = {"table", "offset", "len"}; break;
        case Command::kRfWrite: need = {"table", "offset"}; break;
        case Command::kSend: need = {"cmd"}; break;
        default: break;
    }
    for (const std::string& k : need) {
        if (seen.count(k) == 0) {
            fail(step.line, std::string(command_name(step.command)) + " needs " + k);
            return false;
        }
    }
    return true;
}

}  // namespace station
