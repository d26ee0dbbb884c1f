// ovta-pc: the PC side of the serial link. It speaks every factory command
// that the agent answers itself, by name, and sends any other command frame
// with `send`. `ovta-pc --help` lists the commands with an example each.
//
// Each command writes one frame (an RF transfer one per slice), waits for the
// agent's pre-response and for the answer numbered cmd + 1, and prints the
// answer decoded on one line of standard output. Frames of other numbers that
// come meanwhile (answers that wfmgr sends for commands forwarded earlier)
// are shown but not taken for the answer. Bytes outside frames, such as the
// agent's USB handshake, are skipped.
//
// The exit status says how it went: see kExit* below and the usage text.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "pc/lib/answer_json.hpp"
#include "pc/lib/hex_text.hpp"
#include "pc/lib/pc_answers.hpp"
#include "pc/lib/pc_exchange.hpp"
#include "pc/lib/pc_requests.hpp"
#include "pc/lib/progress_bar.hpp"
#include "pc/lib/table_transfer.hpp"
#include "pc/lib/whole_file.hpp"
#include "pc/os/line.hpp"

namespace {

constexpr int kExitAccepted = 0;
constexpr int kExitPreResponseOnly = 1;
constexpr int kExitNothing = 2;
constexpr int kExitUsage = 3;  // also a device that cannot be opened, written or read
constexpr int kExitRefused = 4;
constexpr int kExitNoStation = 5;
constexpr int kExitMalformed = 6;

constexpr uint32_t kDefaultSlice = 32 * 1024;
// What the agent's answers give back of the texts it stores.
constexpr size_t kDateShown = 10;
constexpr size_t kBoardShown = 20;
constexpr size_t kDescriptionShown = 127;
// The agent keeps a test result line to 498 bytes with its CR LF, and cuts
// what is longer. The station and result numbers take up to 23 bytes of it
// with their commas, so a longer description would not be stored whole.
constexpr size_t kDescriptionMax = 498 - 2 - 23;
// Data bytes printed when a table read has no --out file.
constexpr size_t kDumpMax = 256;

const char kUsage[] =
    "usage: ovta-pc [--device PATH] [--timeout MS] [--raw | --json] COMMAND ...\n"
    "\n"
    "Commands the agent answers itself, each with an example:\n"
    "  enter-amt NAME [MODE]          enter AMT with wf_name NAME (MODE 0 by default; 4 rewrites the\n"
    "                                 agent's AMT path instead of loading)\n"
    "                                   ovta-pc enter-amt station_fct\n"
    "  version [MODULE]               the software version\n"
    "                                   ovta-pc version\n"
    "  date get | date set TEXT       the production date (reads give back 10 bytes)\n"
    "                                   ovta-pc date set 2022-08-05\n"
    "  board get | board set TEXT     the board number (reads give back 20 bytes)\n"
    "                                   ovta-pc board get\n"
    "  result get STATION             the test result of a station\n"
    "                                   ovta-pc result get 12\n"
    "  result set STATION RESULT [DESCRIPTION]\n"
    "                                   ovta-pc result set 12 1 ok\n"
    "  rf read TABLE OFFSET LEN [--out FILE] [--slice N]\n"
    "                                 read a slice of an RF table; prints the bytes or keeps them in FILE\n"
    "                                   ovta-pc rf read 1 0 65536 --out table1.bin\n"
    "  rf write TABLE OFFSET LEN (--in FILE | --hex HEX) [--slice N]\n"
    "                                 write the first LEN bytes of FILE or HEX into an RF table\n"
    "                                   ovta-pc rf write 1 0 16 --in table1.bin\n"
    "  card                           the size of the memory card\n"
    "                                   ovta-pc card\n"
    "Any command frame:\n"
    "  send CMD [--hex HEX | --file PATH] [--no-response]\n"
    "                                 send CMD with that body, show the answer numbered CMD + 1\n"
    "                                   ovta-pc send 100 --hex 01020304\n"
    "\n"
    "Options:\n"
    "  --device PATH   the serial port (default /dev/ttyGS3)\n"
    "  --timeout MS    wait for each answer this long (default 3000)\n"
    "  --slice N       bytes per frame of an RF transfer, 1 to 40928 (default 32768); a transfer of\n"
    "                  more than one slice draws a progress bar on stderr\n"
    "  --raw           also show every frame in hex, and the bytes skipped outside frames\n"
    "  --json          print the decoded answer as one JSON object on one line instead: \"command\",\n"
    "                  \"outcome\", \"text\", \"result_code\", and \"value\", \"number\", \"bytes\", \"data\"\n"
    "                  (hex), \"answer\" (a frame of send) and \"other_frames\" where they belong\n"
    "\n"
    "Exit status: 0 accepted, 1 only the pre-response came, 2 nothing came, 3 usage or device error,\n"
    "4 refused (result 10, or 1 of enter-amt), 5 no such station (result get), 6 malformed answer\n";

struct Options {
    std::string device = "/dev/ttyGS3";
    long timeout_ms = 3000;
    bool raw = false;
    bool json = false;
    bool no_response = false;
    bool help = false;
    std::optional<uint32_t> slice;
    std::optional<std::string> out_path;
    std::optional<std::string> in_path;
    std::optional<std::string> hex;
    std::optional<std::string> body_file;
    std::vector<std::string> words;  // the command and its arguments
};

void fail(const char* fmt, ...) __attribute__((format(gnu_printf, 1, 2)));
void fail(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    fputs("ovta-pc: ", stderr);
    vfprintf(stderr, fmt, args);
    fputc('\n', stderr);
    va_end(args);
}

std::optional<unsigned long long> parse_number(const std::string& text, unsigned long long max) {
    if (text.empty() || text[0] == '-') return std::nullopt;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return std::nullopt;
    return v;
}

std::optional<uint32_t> parse_u32(const std::string& text, const char* what) {
    auto v = parse_number(text, 0xFFFFFFFFull);
    if (!v) fail("%s is no number from 0 to 4294967295: %s", what, text.c_str());
    return v ? std::optional<uint32_t>(static_cast<uint32_t>(*v)) : std::nullopt;
}

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

std::optional<Options> parse_args(int argc, char** argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        auto take = [&](std::optional<std::string>* into) {
            if (!has_value || into->has_value()) return false;
            *into = argv[++i];
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            opt.help = true;
        } else if (arg == "--raw") {
            opt.raw = true;
        } else if (arg == "--json") {
            opt.json = true;
        } else if (arg == "--no-response") {
            opt.no_response = true;
        } else if (arg == "--device" && has_value) {
            opt.device = argv[++i];
        } else if (arg == "--timeout" && has_value) {
            auto ms = parse_number(argv[++i], 24ull * 3600 * 1000);
            if (!ms) {
                fail("--timeout takes milliseconds: %s", argv[i]);
                return std::nullopt;
            }
            opt.timeout_ms = static_cast<long>(*ms);
        } else if (arg == "--slice" && has_value) {
            auto n = parse_number(argv[++i], tools::kTableSliceMax);
            if (!n || *n == 0) {
                fail("--slice takes 1 to %u bytes: %s", tools::kTableSliceMax, argv[i]);
                return std::nullopt;
            }
            opt.slice = static_cast<uint32_t>(*n);
        } else if (arg == "--out" || arg == "--in" || arg == "--hex" || arg == "--file") {
            std::optional<std::string>* into = arg == "--out"  ? &opt.out_path
                                               : arg == "--in" ? &opt.in_path
                                               : arg == "--hex" ? &opt.hex
                                                                : &opt.body_file;
            if (!take(into)) {
                fail("%s takes one value, once", arg.c_str());
                return std::nullopt;
            }
        } else if (arg.size() > 1 && arg[0] == '-' && arg[1] == '-') {
            fail("unknown option %s", arg.c_str());
            return std::nullopt;
        } else {
            opt.words.push_back(arg);
        }
    }
    if (opt.raw && opt.json) {
        fail("--raw and --json do not go together");
        return std::nullopt;
    }
    return opt;
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

int exit_of(tools::Outcome outcome) {
    switch (outcome) {
        case tools::Outcome::kAccepted: return kExitAccepted;
        case tools::Outcome::kRefused: return kExitRefused;
        case tools::Outcome::kNoStation: return kExitNoStation;
        case tools::Outcome::kMalformed: return kExitMalformed;
        case tools::Outcome::kPreResponseOnly: return kExitPreResponseOnly;
        case tools::Outcome::kNothing: return kExitNothing;
        case tools::Outcome::kLineFailed: return kExitUsage;
        case tools::Outcome::kStopped: return kExitUsage;
    }
    return kExitUsage;
}

std::string first_line(const std::string& text) { return text.substr(0, text.find('\n')); }

class Pc {
public:
    Pc(const Options& opt, pcos::Line& line, const pcos::Stop* stop) : opt_(opt), link_(line, stop) {}

    // One command whose answer `read` decodes.
    int single(const char* name, uint32_t cmd, const std::vector<uint8_t>& body, const tools::AnswerReader& read) {
        tools::Exchange ex = link_.exchange(cmd, body, timeout());
        show(ex);
        tools::Judged j = tools::judge(ex, read);
        if (opt_.json) {
            print_json(tools::judged_json(name, j));
        } else if (j.outcome == tools::Outcome::kLineFailed || j.outcome == tools::Outcome::kPreResponseOnly ||
                   j.outcome == tools::Outcome::kNothing || j.outcome == tools::Outcome::kStopped) {
            printf("%s: %s\n", name, why_none(j.outcome, j.answer.text).c_str());
        } else {
            printf("%s\n", j.answer.text.c_str());
        }
        return finish(j.outcome);
    }

    // Any command, the answer shown frame-wise.
    int send(uint32_t cmd, const std::vector<uint8_t>& body) {
        tools::Exchange ex = link_.exchange(cmd, body, timeout(), !opt_.no_response);
        if (ex.write_failed) {
            fail("cannot write to %s: %s", opt_.device.c_str(), strerror(errno));
            return kExitUsage;
        }
        if (!opt_.json) printf("sent: cmd %u, %zu body bytes, %zu bytes on the line\n", cmd, body.size(), ex.sent.size());
        show(ex);
        std::optional<tools::DecodedPcFrame> answer = ex.answer();
        if (opt_.json) return send_json(cmd, ex, answer);
        if (ex.pre_response()) printf("pre-response: OK\n");
        if (answer) {
            printf("response:\n");
            print_indented(tools::describe_pc_frame(*answer));
        }
        int code = kExitAccepted;
        if (ex.line_failed) {
            fail("reading %s failed or the line went away", opt_.device.c_str());
            code = kExitUsage;
        } else if (ex.stopped) {
            printf("stopped before the answer came\n");
            code = kExitUsage;
        } else if (opt_.no_response) {
            code = ex.pre_response() ? kExitAccepted : kExitNothing;
        } else if (answer) {
            code = answer->crc_ok() ? kExitAccepted : kExitMalformed;
        } else {
            printf("%s within %ld ms\n", ex.pre_response() ? "no answer" : "nothing", opt_.timeout_ms);
            code = ex.pre_response() ? kExitPreResponseOnly : kExitNothing;
        }
        return finish_code(code);
    }

    int read_table(const tools::TableRange& range) {
        std::unique_ptr<tools::WholeFile> file;
        std::string error;
        if (opt_.out_path) {
            file = tools::WholeFile::open(*opt_.out_path, &error);
            if (!file) {
                fail("%s", error.c_str());
                return kExitUsage;
            }
        }
        std::vector<uint8_t> shown;
        bool keep_failed = false;
        tools::TransferEnd end;
        {
            tools::ProgressBar bar(stderr, range.len, range.len > range.slice);
            auto sink = [&](std::span<const uint8_t> data) {
                if (file) {
                    keep_failed = !file->write(data);
                    return !keep_failed;
                }
                const size_t n = std::min(data.size(), kDumpMax - std::min(kDumpMax, shown.size()));
                shown.insert(shown.end(), data.begin(), data.begin() + static_cast<std::ptrdiff_t>(n));
                return true;
            };
            end = tools::read_table(link_, range, timeout(), sink, [&](const tools::Exchange& ex, size_t done) {
                show(ex);
                bar.update(done);
            });
        }
        if (keep_failed) {
            fail("cannot write %s: %s", opt_.out_path->c_str(), strerror(errno));
            return finish_code(kExitUsage);
        }
        report_transfer("rf read", range, end, file ? nullptr : &shown);
        if (!file) {
            if (!opt_.json) dump(shown, end.done);
            return finish(end.outcome);
        }
        // The bytes of a read that the table file's end cut short are good
        // bytes; after a lost or garbled answer the old file stays.
        const bool whole = end.outcome == tools::Outcome::kAccepted ||
                           (end.outcome == tools::Outcome::kRefused && end.done > 0);
        if (!whole) {
            if (!opt_.json) printf("%s left as it was\n", opt_.out_path->c_str());
        } else if (!file->commit(&error)) {
            fail("%s", error.c_str());
            return finish_code(kExitUsage);
        } else if (!opt_.json) {
            printf("kept %zu bytes in %s\n", end.done, opt_.out_path->c_str());
        }
        return finish(end.outcome);
    }

    int write_table(const tools::TableRange& range, const std::vector<uint8_t>& data) {
        tools::TransferEnd end;
        {
            tools::ProgressBar bar(stderr, range.len, range.len > range.slice);
            end = tools::write_table(link_, range, data, timeout(), [&](const tools::Exchange& ex, size_t done) {
                show(ex);
                bar.update(done);
            });
        }
        report_transfer("rf write", range, end);
        return finish(end.outcome);
    }

private:
    std::chrono::milliseconds timeout() const { return std::chrono::milliseconds(opt_.timeout_ms); }

    // The text of an exchange that brought no answer, with where or how long.
    std::string why_none(tools::Outcome outcome, const std::string& text) const {
        if (outcome == tools::Outcome::kLineFailed) return text + " (" + opt_.device + ")";
        if (outcome == tools::Outcome::kStopped) return text;
        return text + " within " + std::to_string(opt_.timeout_ms) + " ms";
    }

    void report_transfer(const char* name, const tools::TableRange& range, const tools::TransferEnd& end,
                         const std::vector<uint8_t>* data = nullptr) {
        if (opt_.json) {
            nlohmann::json j = tools::transfer_json(name, end);
            if (data != nullptr) j["data"] = tools::to_hex(*data);
            print_json(std::move(j));
            return;
        }
        const bool one_slice = range.len <= range.slice;
        if (end.outcome == tools::Outcome::kAccepted) {
            if (one_slice) {
                printf("%s\n", end.last_text.c_str());
            } else {
                printf("%s: %zu bytes in slices of %u\n", name, end.done, range.slice);
            }
            return;
        }
        const bool answered = end.outcome == tools::Outcome::kRefused || end.outcome == tools::Outcome::kMalformed;
        const std::string what =
            answered ? end.last_text : std::string(name) + ": " + why_none(end.outcome, end.last_text);
        if (one_slice) {
            printf("%s\n", what.c_str());
        } else {
            printf("%s: stopped after %zu of %u bytes; %s\n", name, end.done, range.len, what.c_str());
        }
    }

    void dump(const std::vector<uint8_t>& shown, size_t total) {
        for (size_t at = 0; at < shown.size(); at += 16) {
            const size_t n = std::min<size_t>(16, shown.size() - at);
            printf("  %04zx  %s\n", at, tools::to_hex(std::span<const uint8_t>(shown.data() + at, n)).c_str());
        }
        if (total > shown.size()) printf("  ... %zu more bytes; --out FILE keeps them all\n", total - shown.size());
    }

    // Frames that came beside the answer, and with --raw everything. With
    // --json they are kept for the JSON object instead.
    void show(const tools::Exchange& ex) {
        if (opt_.json) {
            for (const tools::SeenFrame& f : ex.frames) {
                if (f.role == tools::FrameRole::kOther) other_frames_.push_back(tools::to_hex(f.bytes));
            }
            return;
        }
        if (opt_.raw && !ex.sent.empty()) printf("raw sent: %s\n", tools::to_hex(ex.sent).c_str());
        for (const tools::SeenFrame& f : ex.frames) {
            if (opt_.raw) printf("raw recv: %s\n", tools::to_hex(f.bytes).c_str());
            if (f.role != tools::FrameRole::kOther) continue;
            std::optional<tools::DecodedPcFrame> d = tools::decode_pc_frame(f.bytes);
            printf("other frame, not the answer: %s\n",
                   d ? first_line(tools::describe_pc_frame(*d)).c_str() : tools::to_hex(f.bytes).c_str());
        }
        fflush(stdout);
    }

    void print_json(nlohmann::json j) {
        if (!other_frames_.empty()) j["other_frames"] = other_frames_;
        printf("%s\n", j.dump().c_str());
    }

    int send_json(uint32_t cmd, const tools::Exchange& ex, const std::optional<tools::DecodedPcFrame>& answer) {
        int code = kExitAccepted;
        const char* outcome = "accepted";
        if (ex.line_failed || ex.stopped) {
            code = kExitUsage;
            outcome = ex.stopped ? "stopped" : "line-failed";
        } else if (opt_.no_response) {
            code = ex.pre_response() ? kExitAccepted : kExitNothing;
            outcome = ex.pre_response() ? "accepted" : "nothing";
        } else if (answer) {
            code = answer->crc_ok() ? kExitAccepted : kExitMalformed;
            outcome = answer->crc_ok() ? "accepted" : "malformed";
        } else {
            code = ex.pre_response() ? kExitPreResponseOnly : kExitNothing;
            outcome = ex.pre_response() ? "pre-response-only" : "nothing";
        }
        nlohmann::json j = {{"command", "send"}, {"cmd", cmd}, {"outcome", outcome}, {"pre_response", ex.pre_response()}};
        if (answer) j["answer"] = tools::frame_json(*answer);
        print_json(std::move(j));
        return finish_code(code);
    }

    static void print_indented(const std::string& text) {
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos) end = text.size();
            printf("  %.*s\n", static_cast<int>(end - start), text.c_str() + start);
            start = end + 1;
        }
    }

    int finish(tools::Outcome outcome) { return finish_code(exit_of(outcome)); }

    int finish_code(int code) {
        if (opt_.raw && !opt_.json && link_.skipped() != 0) printf("skipped: %zu bytes outside frames\n", link_.skipped());
        fflush(stdout);
        return code;
    }

    const Options& opt_;
    tools::PcLink link_;
    std::vector<std::string> other_frames_;  // --json: frames that were not the answers, in hex
};

// A text stored by the agent: warns when a read will give back less of it.
void note_cut(const std::string& text, size_t shown, const char* what) {
    if (text.size() > shown) {
        fprintf(stderr, "ovta-pc: note: the phone stores all %zu bytes of the %s, a read gives back the first %zu\n",
                text.size(), what, shown);
    }
}

// Runs the command in opt.words; every usage error returns kExitUsage before
// the device is opened.
class Command {
public:
    explicit Command(const Options& opt) : opt_(opt), w_(opt.words) {}

    // Checks the command line. False, with the reason on stderr, when it is wrong.
    bool parse() {
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

    int run(Pc& pc) const {
        switch (kind_) {
            case Kind::kSend: return pc.send(cmd_, body_);
            case Kind::kRead: return pc.read_table(range_);
            case Kind::kWrite: return pc.write_table(range_, body_);
            case Kind::kSingle: break;
        }
        return pc.single(name_.c_str(), cmd_, body_, read_);
    }

private:
    enum class Kind { kSingle, kSend, kRead, kWrite };

    bool usage_error(const char* why) {
        fail("%s; ovta-pc --help lists the commands", why);
        return false;
    }

    bool arity(size_t least, size_t most) {
        if (w_.size() < least || w_.size() > most) return usage_error(("wrong arguments to " + w_[0]).c_str());
        return true;
    }

    bool set_single(std::string name, uint32_t cmd, std::vector<uint8_t> body, tools::AnswerReader read) {
        name_ = std::move(name);
        cmd_ = cmd;
        body_ = std::move(body);
        read_ = std::move(read);
        kind_ = Kind::kSingle;
        return true;
    }

    bool parse_send() {
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

    bool parse_version() {
        if (!arity(1, 2)) return false;
        uint32_t module = 0;
        if (w_.size() == 2) {
            auto m = parse_u32(w_[1], "MODULE");
            if (!m) return false;
            module = *m;
        }
        return set_single("version", tools::kCmdVersion, tools::version_body(module), tools::version_answer);
    }

    bool parse_text(bool date) {
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

    bool parse_result() {
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

    bool parse_enter_amt() {
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

    bool parse_rf() {
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

    const Options& opt_;
    const std::vector<std::string>& w_;
    Kind kind_ = Kind::kSingle;
    std::string name_;
    uint32_t cmd_ = 0;
    std::vector<uint8_t> body_;
    tools::AnswerReader read_;
    tools::TableRange range_;
};

}  // namespace

int main(int argc, char** argv) {
    std::optional<Options> opt = parse_args(argc, argv);
    if (!opt) return kExitUsage;
    if (opt->help) {
        fputs(kUsage, stdout);
        return kExitAccepted;
    }
    Command command(*opt);
    if (!command.parse()) return kExitUsage;

    std::string error;
    pcos::Line line = pcos::Line::open(opt->device, &error);
    if (!line.valid()) {
        fail("%s", error.c_str());
        return kExitUsage;
    }
    // What waits on the line is no answer to this command: earlier frames, or
    // the handshake that the agent offers until the PC first writes.
    line.discard_input();
    // Ctrl-C ends the wait for the answer; the program then says so and ends.
    pcos::Stop stop;
    const bool stoppable = pcos::raise_on_interrupt(stop);
    Pc pc(*opt, line, stoppable ? &stop : nullptr);
    return command.run(pc);
}
