// The words of ovta-pc's command line checked and made into one request.
// Main thread only; nothing here touches the line.
#include "pc/ovta_pc/command.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>

#include "pc/lib/hex_text.hpp"
#include "pc/lib/pc_answers.hpp"
#include "pc/lib/pc_frame_codec.hpp"
#include "pc/lib/pc_requests.hpp"

namespace ovta_pc {

namespace {

constexpr uint32_t kDefaultSlice = 32 * 1024;
// What the agent's answers give back of the texts it stores.
constexpr size_t kDateShown = 10;
constexpr size_t kBoardShown = 20;
constexpr size_t kDescriptionShown = 127;
// The agent keeps a test result line to 498 bytes with its CR LF, and cuts
// what is longer. The station and result numbers take up to 23 bytes of it
// with their commas, so a longer description would not be stored whole.
constexpr size_t kDescriptionMax = 498 - 2 - 23;

// The first `max` bytes of the file, or all of a shorter one.
std::optional<std::vector<uint8_t>> read_file_start(const std::string& path, size_t max) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fail("cannot read %s: %s", path.c_str(), strerror(errno));
        return std::nullopt;
    }
    std::vector<uint8_t> bytes;
    char buf[65536];
    while (bytes.size() < max && in) {
        in.read(buf, static_cast<std::streamsize>(std::min(sizeof(buf), max - bytes.size())));
        bytes.insert(bytes.end(), buf, buf + in.gcount());
    }
    if (in.bad()) {
        fail("cannot read %s", path.c_str());
        return std::nullopt;
    }
    return bytes;
}

// Refuses the options that the command does not take.
bool only_options(const Options& opt, bool body, bool out, bool in, bool slice) {
    const char* stray = nullptr;
    if (!body && opt.body_file) stray = "--file";
    if (!body && !in && opt.hex) stray = "--hex";
    if (!body && opt.no_response) stray = "--no-response";
    if (!out && opt.out_path) stray = "--out";
    if (!in && opt.in_path) stray = "--in";
    if (!slice && opt.slice) stray = "--slice";
    if (stray == nullptr) return true;
    std::string command = opt.words.empty() ? "" : opt.words[0];
    if (command == "rf" && opt.words.size() > 1) command += " " + opt.words[1];
    fail("%s does not belong to %s", stray, command.c_str());
    return false;
}


void note_cut(const std::string& text, size_t shown, const char* what) {
    if (text.size() > shown) {
        fprintf(stderr, "ovta-pc: note: the phone stores all %zu bytes of the %s, a read gives back the first %zu\n",
                text.size(), what, shown);
    }
}

// Runs the command in opt.words; every usage error returns kExitUsage before
// the device is opened.

}  // namespace

// Checks the command line. False, with the reason on stderr, when it is wrong.
bool Command::parse() {
    if (w_.empty()) return usage_error("no command");
    const std::string& c = w_[0];
    if (c == "send") return parse_send();
    if (c == "rf") return parse_rf();
    if (!only_options(opt_, false, false, false, false)) return false;
    if (c == "version") return parse_version();
    if (c == "date" || c == "board") return parse_text(c == "date");
    if (c == "result") return parse_result();
    if (c == "card") return arity(1, 1) && set_single("card", tools::kCmdCard, {}, tools::card_answer);
    if (c == "enter-amt") return parse_enter_amt();
    return usage_error(("unknown command " + c).c_str());
}

int Command::run(Session& pc) const {
    switch (kind_) {
        case Kind::kSend: return pc.send(cmd_, body_);
        case Kind::kRead: return pc.read_table(range_);
        case Kind::kWrite: return pc.write_table(range_, body_);
        case Kind::kSingle: break;
    }
    return pc.single(name_.c_str(), cmd_, body_, read_);
}

bool Command::usage_error(const char* why) {
    fail("%s; ovta-pc --help lists the commands", why);
    return false;
}

bool Command::arity(size_t least, size_t most) {
    if (w_.size() < least || w_.size() > most) return usage_error(("wrong arguments to " + w_[0]).c_str());
    return true;
}

bool Command::set_single(std::string name, uint32_t cmd, std::vector<uint8_t> body, tools::AnswerReader read) {
    name_ = std::move(name);
    cmd_ = cmd;
    body_ = std::move(body);
    read_ = std::move(read);
    kind_ = Kind::kSingle;
    return true;
}

bool Command::parse_send() {
    if (!only_options(opt_, true, false, false, false) || !arity(2, 2)) return false;
    auto cmd = parse_u32(w_[1], "CMD");
    if (!cmd) return false;
    if (opt_.hex && opt_.body_file) return usage_error("--hex and --file both give the body");
    if (opt_.hex) {
        auto body = tools::parse_hex(*opt_.hex);
        if (!body) return usage_error(("not a hex byte string: " + *opt_.hex).c_str());
        body_ = std::move(*body);
    } else if (opt_.body_file) {
        // One byte more than a body holds is enough to refuse the file.
        auto body = read_file_start(*opt_.body_file, tools::kPcBodyMax + 1);
        if (!body) return false;
        body_ = std::move(*body);
    }
    if (body_.size() > tools::kPcBodyMax) {
        fail("a body holds at most %zu bytes, this one %zu", tools::kPcBodyMax, body_.size());
        return false;
    }
    cmd_ = *cmd;
    kind_ = Kind::kSend;
    return true;
}

bool Command::parse_version() {
    if (!arity(1, 2)) return false;
    uint32_t module = 0;
    if (w_.size() == 2) {
        auto m = parse_u32(w_[1], "MODULE");
        if (!m) return false;
        module = *m;
    }
    return set_single("version", tools::kCmdVersion, tools::version_body(module), tools::version_answer);
}

bool Command::parse_text(bool date) {
    const char* what = date ? "production date" : "board number";
    if (w_.size() == 2 && w_[1] == "get") {
        return date ? set_single(what, tools::kCmdReadDate, {}, tools::read_date_answer)
                    : set_single(what, tools::kCmdReadBoard, {}, tools::read_board_answer);
    }
    if (w_.size() != 3 || w_[1] != "set") return usage_error(("wrong arguments to " + w_[0]).c_str());
    note_cut(w_[2], date ? kDateShown : kBoardShown, what);
    return date ? set_single(what, tools::kCmdWriteDate, tools::text_body(w_[2]), tools::write_date_answer)
                : set_single(what, tools::kCmdWriteBoard, tools::text_body(w_[2]), tools::write_board_answer);
}

bool Command::parse_result() {
    if (w_.size() < 3) return usage_error("wrong arguments to result");
    auto station = parse_u32(w_[2], "STATION");
    if (!station) return false;
    const uint32_t site = *station;
    const std::string name = "station " + std::to_string(site);
    if (w_[1] == "get" && w_.size() == 3) {
        return set_single(name, tools::kCmdReadResult, tools::read_result_body(site),
                          [site](std::span<const uint8_t> b) { return tools::read_result_answer(b, site); });
    }
    if (w_[1] != "set" || w_.size() < 4 || w_.size() > 5) return usage_error("wrong arguments to result");
    auto result = parse_u32(w_[3], "RESULT");
    if (!result) return false;
    const std::string description = w_.size() == 5 ? w_[4] : std::string();
    if (description.find_first_of("\r\n") != std::string::npos) {
        return usage_error("the phone keeps one line per station: a description holds no CR or LF");
    }
    if (description.size() > kDescriptionMax) {
        fail("a description holds at most %zu bytes, this one %zu", kDescriptionMax, description.size());
        return false;
    }
    note_cut(description, kDescriptionShown, "description");
    return set_single(name, tools::kCmdWriteResult, tools::write_result_body(site, *result, description),
                      [site](std::span<const uint8_t> b) { return tools::write_result_answer(b, site); });
}

bool Command::parse_enter_amt() {
    if (!arity(2, 3)) return false;
    uint32_t mode = 0;
    if (w_.size() == 3) {
        auto m = parse_u32(w_[2], "MODE");
        if (!m) return false;
        mode = *m;
    }
    auto body = tools::enter_amt_body(mode, w_[1]);
    if (!body) {
        fail("NAME holds 1 to %zu bytes, this one %zu", tools::kWfNameMax, w_[1].size());
        return false;
    }
    return set_single("enter AMT", tools::kCmdEnterAmt, *body,
                      [mode](std::span<const uint8_t> b) { return tools::enter_amt_answer(b, mode); });
}

bool Command::parse_rf() {
    if (w_.size() != 5 || (w_[1] != "read" && w_[1] != "write")) return usage_error("wrong arguments to rf");
    const bool read = w_[1] == "read";
    if (!only_options(opt_, false, read, !read, true)) return false;
    auto table = parse_u32(w_[2], "TABLE");
    auto offset = table ? parse_u32(w_[3], "OFFSET") : std::nullopt;
    auto len = offset ? parse_u32(w_[4], "LEN") : std::nullopt;
    if (!len) return false;
    if (!tools::range_fits(*offset, *len)) return usage_error("OFFSET + LEN runs past 4 GiB");
    range_ = {*table, *offset, *len, opt_.slice.value_or(kDefaultSlice)};
    kind_ = read ? Kind::kRead : Kind::kWrite;
    if (read) return true;
    if (opt_.in_path.has_value() == opt_.hex.has_value()) {
        return usage_error("rf write takes --in FILE or --hex HEX");
    }
    if (opt_.hex) {
        auto data = tools::parse_hex(*opt_.hex);
        if (!data) return usage_error(("not a hex byte string: " + *opt_.hex).c_str());
        body_ = std::move(*data);
    } else {
        auto data = read_file_start(*opt_.in_path, *len);
        if (!data) return false;
        body_ = std::move(*data);
    }
    if (body_.size() < *len) {
        fail("%s holds %zu bytes, fewer than LEN %u", opt_.hex ? "--hex" : opt_.in_path->c_str(), body_.size(),
             *len);
        return false;
    }
    body_.resize(*len);
    return true;
}

}  // namespace ovta_pc
