// ovta-pc's session on the line: each request run through the PC link,
// its answer printed as text or JSON, and the exit status. Main thread only.
#include "pc/ovta_pc/session.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "pc/lib/answer_json.hpp"
#include "pc/lib/hex_text.hpp"
#include "pc/lib/progress_bar.hpp"
#include "pc/lib/whole_file.hpp"

namespace ovta_pc {

namespace {

// Data bytes printed when a table read has no --out file.
constexpr size_t kDumpMax = 256;

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

}  // namespace

// One command whose answer `read` decodes.
int Session::single(const char* name, uint32_t cmd, const std::vector<uint8_t>& body, const tools::AnswerReader& read) {
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
int Session::send(uint32_t cmd, const std::vector<uint8_t>& body) {
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

int Session::read_table(const tools::TableRange& range) {
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

int Session::write_table(const tools::TableRange& range, const std::vector<uint8_t>& data) {
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

std::chrono::milliseconds Session::timeout() const { return std::chrono::milliseconds(opt_.timeout_ms); }

// The text of an exchange that brought no answer, with where or how long.
std::string Session::why_none(tools::Outcome outcome, const std::string& text) const {
    if (outcome == tools::Outcome::kLineFailed) return text + " (" + opt_.device + ")";
    if (outcome == tools::Outcome::kStopped) return text;
    return text + " within " + std::to_string(opt_.timeout_ms) + " ms";
}

void Session::report_transfer(const char* name, const tools::TableRange& range, const tools::TransferEnd& end,
                     const std::vector<uint8_t>* data) {
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

void Session::dump(const std::vector<uint8_t>& shown, size_t total) {
    for (size_t at = 0; at < shown.size(); at += 16) {
        const size_t n = std::min<size_t>(16, shown.size() - at);
        printf("  %04zx  %s\n", at, tools::to_hex(std::span<const uint8_t>(shown.data() + at, n)).c_str());
    }
    if (total > shown.size()) printf("  ... %zu more bytes; --out FILE keeps them all\n", total - shown.size());
}

// Frames that came beside the answer, and with --raw everything. With
// --json they are kept for the JSON object instead.
void Session::show(const tools::Exchange& ex) {
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

void Session::print_json(nlohmann::json j) {
    if (!other_frames_.empty()) j["other_frames"] = other_frames_;
    printf("%s\n", j.dump().c_str());
}

int Session::send_json(uint32_t cmd, const tools::Exchange& ex, const std::optional<tools::DecodedPcFrame>& answer) {
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

void Session::print_indented(const std::string& text) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        printf("  %.*s\n", static_cast<int>(end - start), text.c_str() + start);
        start = end + 1;
    }
}

int Session::finish(tools::Outcome outcome) { return finish_code(exit_of(outcome)); }

int Session::finish_code(int code) {
    if (opt_.raw && !opt_.json && link_.skipped() != 0) printf("skipped: %zu bytes outside frames\n", link_.skipped());
    fflush(stdout);
    return code;
}

}  // namespace ovta_pc
