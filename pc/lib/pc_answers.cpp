#include "pc/lib/pc_answers.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "wire/bytes.hpp"
#include "pc/lib/hex_text.hpp"
#include "wire/pc_commands.hpp"

namespace tools {

namespace {

constexpr uint32_t kDone = wire::kResultDone;
constexpr uint32_t kPathUnchanged = wire::kResultPathUnchanged;
constexpr uint32_t kNoStation = wire::kResultNoStation;
constexpr uint32_t kFailed = wire::kResultFailed;
constexpr uint32_t kAmtModeRewritePath = wire::kAmtModeRewritePath;

// Sizes of the variable parts of the answers.
constexpr size_t kVersionMax = 64;
constexpr size_t kDateField = 12;
constexpr size_t kBoardMax = 20;
constexpr size_t kDescriptionMax = 127;

std::string format(const char* fmt, ...) __attribute__((format(gnu_printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char line[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(line, sizeof(line), fmt, args);
    va_end(args);
    return line;
}

const char* result_name(uint32_t code) {
    switch (code) {
        case kDone: return "done";
        case kFailed: return "failed";
        default: return "refused";
    }
}

// "SUBJECT: failed (result 10)" and the like, for every result but 0.
Answer refused(const std::string& subject, uint32_t code, const char* name = nullptr) {
    Answer a;
    a.verdict = Verdict::kRefused;
    a.result_code = code;
    a.text = format("%s: %s (result %u)", subject.c_str(), name != nullptr ? name : result_name(code), code);
    return a;
}

Answer accepted(std::string text) {
    Answer a;
    a.verdict = Verdict::kAccepted;
    a.text = std::move(text);
    return a;
}

Answer malformed(const std::string& subject, size_t got, const char* expected) {
    Answer a;
    a.text = format("%s: malformed answer, a body of %zu bytes where %s belong", subject.c_str(), got, expected);
    return a;
}

// Body sizes from `least` to `most`, result_code first.
bool sized(std::span<const uint8_t> body, size_t least, size_t most) {
    return body.size() >= least && body.size() <= most;
}

uint32_t result_of(std::span<const uint8_t> body) { return bytes::get_le32(body, 0); }

std::string shown(std::span<const uint8_t> text) { return to_printable(text); }

// The text in a fixed field: up to its first zero byte.
std::span<const uint8_t> up_to_zero(std::span<const uint8_t> field) {
    const void* nul = memchr(field.data(), 0, field.size());
    if (nul == nullptr) return field;
    return field.first(static_cast<size_t>(static_cast<const uint8_t*>(nul) - field.data()));
}

// The answers whose body is result_code alone.
Answer result_only(std::span<const uint8_t> body, const std::string& subject) {
    if (body.size() != 4) return malformed(subject, body.size(), "4");
    const uint32_t code = result_of(body);
    if (code != kDone) return refused(subject, code);
    return accepted(subject + ": done");
}

}  // namespace

Answer enter_amt_answer(std::span<const uint8_t> body, uint32_t amt_mode) {
    const std::string subject = "enter AMT";
    if (body.size() != 4) return malformed(subject, body.size(), "4");
    const uint32_t code = result_of(body);
    const bool rewrite = (amt_mode & 0xFF) == kAmtModeRewritePath;
    if (code == kPathUnchanged) return refused(subject, code, "the AMT path has no fourth slash, unchanged");
    if (code == kFailed && !rewrite) return refused(subject, code, "wfmgr did not load the name");
    if (code != kDone) return refused(subject, code);
    return accepted(rewrite ? "enter AMT: done, the AMT path now ends in the name" : "enter AMT: done, loaded");
}

Answer version_answer(std::span<const uint8_t> body) {
    const std::string subject = "version";
    if (!sized(body, 8, 8 + kVersionMax)) return malformed(subject, body.size(), "8 to 72");
    const uint32_t code = result_of(body);
    if (code != kDone) return refused(subject, code);
    Answer a = accepted("version: " + shown(body.subspan(8)));
    a.value = shown(up_to_zero(body.subspan(8)));
    return a;
}

Answer read_table_answer(std::span<const uint8_t> body, uint32_t len) {
    const std::string subject = "rf read";
    if (!sized(body, 4, 4 + static_cast<size_t>(len))) {
        return malformed(subject, body.size(), format("4 to %zu", 4 + static_cast<size_t>(len)).c_str());
    }
    const uint32_t code = result_of(body);
    std::span<const uint8_t> data = body.subspan(4);
    if (code == kDone && data.size() != len) {
        return malformed(subject, body.size(), format("%zu with result 0", 4 + static_cast<size_t>(len)).c_str());
    }
    Answer a;
    if (code == kDone) {
        a = accepted(format("rf read: %zu bytes", data.size()));
    } else {
        a = refused(subject, code);
        a.text = format("rf read: %zu of %u bytes, %s (result %u)", data.size(), len, result_name(code), code);
    }
    a.data.assign(data.begin(), data.end());
    return a;
}

Answer write_table_answer(std::span<const uint8_t> body) { return result_only(body, "rf write"); }

Answer read_date_answer(std::span<const uint8_t> body) {
    const std::string subject = "production date";
    if (body.size() != 4 + kDateField) return malformed(subject, body.size(), "16");
    const uint32_t code = result_of(body);
    if (code != kDone) return refused(subject, code);
    Answer a = accepted("production date: " + shown(up_to_zero(body.subspan(4))));
    a.value = shown(up_to_zero(body.subspan(4)));
    return a;
}

Answer write_date_answer(std::span<const uint8_t> body) { return result_only(body, "production date written"); }

Answer read_board_answer(std::span<const uint8_t> body) {
    const std::string subject = "board number";
    if (!sized(body, 4, 4 + kBoardMax)) return malformed(subject, body.size(), "4 to 24");
    const uint32_t code = result_of(body);
    if (code != kDone) return refused(subject, code);
    Answer a = accepted("board number: " + shown(body.subspan(4)));
    a.value = shown(up_to_zero(body.subspan(4)));
    return a;
}

Answer write_board_answer(std::span<const uint8_t> body) { return result_only(body, "board number written"); }

Answer read_result_answer(std::span<const uint8_t> body, uint32_t site_no) {
    const std::string subject = format("station %u", site_no);
    if (!sized(body, 8, 8 + kDescriptionMax)) return malformed(subject, body.size(), "8 to 135");
    const uint32_t code = result_of(body);
    if (code == kNoStation) {
        Answer a = refused(subject, code, "no such station");
        a.verdict = Verdict::kNoStation;
        return a;
    }
    if (code != kDone) return refused(subject, code);
    const uint32_t station_result = bytes::get_le32(body, 4);
    std::span<const uint8_t> description = body.subspan(8);
    Answer a = description.empty()
                   ? accepted(format("station %u: result %u, no description", site_no, station_result))
                   : accepted(format("station %u: result %u, description ", site_no, station_result) + shown(description));
    a.value = shown(description);
    a.number = station_result;
    return a;
}

Answer write_result_answer(std::span<const uint8_t> body, uint32_t site_no) {
    return result_only(body, format("station %u written", site_no));
}

Answer card_answer(std::span<const uint8_t> body) {
    const std::string subject = "card";
    if (body.size() != 8) return malformed(subject, body.size(), "8");
    const uint32_t code = result_of(body);
    if (code != kDone) return refused(subject, code, code == kFailed ? "no card measured" : nullptr);
    Answer a = accepted(format("card: %u KiB", bytes::get_le32(body, 4)));
    a.number = bytes::get_le32(body, 4);
    return a;
}

}  // namespace tools
