// One command and its answer on the PC end of the serial line.
//
// The agent acknowledges every frame at once with the 16-byte pre-response
// and then sends the answer, numbered cmd + 1. Other frames can come in
// between: answers that wfmgr sends for commands forwarded earlier, which
// the agent passes on whenever they come, unpaired. Such a frame is kept
// and shown but never taken for the answer. Bytes outside frames (the
// agent's USB handshake, AA BB CC DD 7F, offered once a second until the PC
// first writes) are skipped by the frame cutter.
//
// The link keeps its cutter across exchanges, so the bytes of a frame that
// straddles two exchanges are not lost.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "pc/lib/pc_answers.hpp"
#include "pc/lib/pc_frame_codec.hpp"
#include "pc/os/line.hpp"

namespace tools {

enum class FrameRole { kPreResponse, kAnswer, kOther };

struct SeenFrame {
    FrameRole role = FrameRole::kOther;
    std::vector<uint8_t> bytes;
};

struct Exchange {
    std::vector<uint8_t> sent;  // the command frame as written
    bool write_failed = false;  // also when the line took it too slowly
    bool line_failed = false;  // a read failed or the line went away
    bool stopped = false;      // the link's stop descriptor ended the wait
    std::vector<SeenFrame> frames;  // everything that came, in order

    bool pre_response() const;
    // The answer frame, decoded; nothing when it did not come.
    std::optional<DecodedPcFrame> answer() const;
};

// Sorts the frames of one exchange: the first pre-response, the first frame
// numbered `response`, and all others.
class AnswerMatcher {
public:
    explicit AnswerMatcher(uint32_t response) : response_(response) {}
    FrameRole take(std::span<const uint8_t> frame);
    bool pre_response() const { return pre_response_; }
    bool answered() const { return answered_; }

private:
    uint32_t response_;
    bool pre_response_ = false;
    bool answered_ = false;
};

// How one exchange ended for the PC.
enum class Outcome {
    kAccepted,         // the answer came with result 0
    kRefused,          // the answer came with another result
    kNoStation,        // a test result read found no line for the station
    kMalformed,        // the answer came with a bad CRC or the wrong size
    kPreResponseOnly,  // the agent acknowledged the frame but sent no answer in time
    kNothing,          // not even the pre-response came in time
    kLineFailed,       // the line could not be written or read
    kStopped,          // the PC was told to stop before the answer came
};

// A short name of the outcome for records: "accepted", "refused",
// "no-station", "malformed", "pre-response-only", "nothing", "line-failed",
// "stopped".
const char* outcome_name(Outcome outcome);

using AnswerReader = std::function<Answer(std::span<const uint8_t> body)>;

struct Judged {
    Outcome outcome = Outcome::kNothing;
    Answer answer;  // text says what came, or why nothing did
};

// Judges an exchange: its answer read by `read`, or why there is none.
Judged judge(const Exchange& exchange, const AnswerReader& read);

class PcLink {
public:
    // Uses `line`, which stays the caller's. A raised `stop` (when given)
    // ends any exchange at once, as stopped; it also stays the caller's.
    explicit PcLink(pcos::Line& line, const pcos::Stop* stop = nullptr);

    // Writes the frame of `cmd` with `body` and collects what comes until the
    // pre-response and the answer are there (only the pre-response when
    // `want_answer` is false), the time-out passes or the line fails.
    Exchange exchange(uint32_t cmd, std::span<const uint8_t> body, std::chrono::milliseconds timeout,
                      bool want_answer = true);

    // Whether the stop is raised.
    bool stopped() const;
    // Bytes skipped outside frames so far.
    size_t skipped() const { return cutter_.skipped(); }

private:
    const pcos::Stop* stop() const;

    pcos::Line line_;  // borrowed
    pcos::Stop stop_;  // borrowed; not valid when there is none
    PcFrameCutter cutter_;
};

}  // namespace tools
