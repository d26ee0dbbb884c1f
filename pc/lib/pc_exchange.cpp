#include "pc/lib/pc_exchange.hpp"

#include <cstdio>

namespace tools {

bool Exchange::pre_response() const {
    for (const SeenFrame& f : frames) {
        if (f.role == FrameRole::kPreResponse) return true;
    }
    return false;
}

std::optional<DecodedPcFrame> Exchange::answer() const {
    for (const SeenFrame& f : frames) {
        if (f.role == FrameRole::kAnswer) return decode_pc_frame(f.bytes);
    }
    return std::nullopt;
}

const char* outcome_name(Outcome outcome) {
    switch (outcome) {
        case Outcome::kAccepted: return "accepted";
        case Outcome::kRefused: return "refused";
        case Outcome::kNoStation: return "no-station";
        case Outcome::kMalformed: return "malformed";
        case Outcome::kPreResponseOnly: return "pre-response-only";
        case Outcome::kNothing: return "nothing";
        case Outcome::kLineFailed: return "line-failed";
        case Outcome::kStopped: return "stopped";
    }
    return "nothing";
}

Judged judge(const Exchange& exchange, const AnswerReader& read) {
    Judged out;
    if (exchange.stopped) {
        out.outcome = Outcome::kStopped;
        out.answer.text = "stopped before the answer came";
        return out;
    }
    if (exchange.write_failed || exchange.line_failed) {
        out.outcome = Outcome::kLineFailed;
        out.answer.text = exchange.write_failed ? "the command could not be written" : "the line failed";
        return out;
    }
    std::optional<DecodedPcFrame> answer = exchange.answer();
    if (!answer) {
        out.outcome = exchange.pre_response() ? Outcome::kPreResponseOnly : Outcome::kNothing;
        out.answer.text = exchange.pre_response() ? "no answer behind the pre-response" : "nothing came";
        return out;
    }
    if (!answer->crc_ok()) {
        out.outcome = Outcome::kMalformed;
        char line[128];
        snprintf(line, sizeof(line), "answer %u with a bad CRC: 0x%08X where 0x%08X belongs", answer->cmd,
                 answer->crc_received, answer->crc_expected);
        out.answer.text = line;
        return out;
    }
    out.answer = read(answer->body);
    switch (out.answer.verdict) {
        case Verdict::kAccepted: out.outcome = Outcome::kAccepted; break;
        case Verdict::kRefused: out.outcome = Outcome::kRefused; break;
        case Verdict::kNoStation: out.outcome = Outcome::kNoStation; break;
        case Verdict::kMalformed: out.outcome = Outcome::kMalformed; break;
    }
    return out;
}

PcLink::PcLink(pcos::Line& line, const pcos::Stop* stop)
    : line_(pcos::Line::borrow(line.native())),
      stop_(pcos::Stop::borrow(stop != nullptr ? stop->native() : pcos::kNoHandle)) {}

const pcos::Stop* PcLink::stop() const { return stop_.valid() ? &stop_ : nullptr; }

bool PcLink::stopped() const { return stop_.raised(); }

FrameRole AnswerMatcher::take(std::span<const uint8_t> frame) {
    if (!pre_response_ && is_pre_response(frame)) {
        pre_response_ = true;
        return FrameRole::kPreResponse;
    }
    if (answered_) return FrameRole::kOther;
    std::optional<DecodedPcFrame> decoded = decode_pc_frame(frame);
    if (!decoded || !decoded->has_cmd || decoded->cmd != response_) return FrameRole::kOther;
    answered_ = true;
    return FrameRole::kAnswer;
}

Exchange PcLink::exchange(uint32_t cmd, std::span<const uint8_t> body, std::chrono::milliseconds timeout,
                          bool want_answer) {
    Exchange out;
    std::optional<std::vector<uint8_t>> frame = build_pc_frame(cmd, body);
    if (!frame) {
        out.write_failed = true;
        return out;
    }
    out.sent = std::move(*frame);
    const pcos::Deadline deadline = std::chrono::steady_clock::now() + timeout;
    if (!line_.write_all(out.sent, deadline, stop())) {
        out.write_failed = true;
        out.stopped = stopped();
        return out;
    }
    AnswerMatcher matcher(cmd + 1);
    std::vector<uint8_t> buf(4096);
    while (!(matcher.pre_response() && (matcher.answered() || !want_answer))) {
        // Frames already cut come first: the line may hold nothing more.
        while (auto got = cutter_.next()) {
            FrameRole role = matcher.take(*got);
            out.frames.push_back({role, std::move(*got)});
            if (matcher.pre_response() && (matcher.answered() || !want_answer)) return out;
        }
        long n = line_.read_some(buf, deadline, stop());
        if (n == pcos::kReadTimeout) break;
        if (n == pcos::kReadStopped) {
            out.stopped = true;
            break;
        }
        if (n < 0) {
            out.line_failed = true;
            break;
        }
        cutter_.feed(std::span<const uint8_t>(buf.data(), static_cast<size_t>(n)));
    }
    return out;
}

}  // namespace tools
