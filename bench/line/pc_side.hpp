// The PC's end of the line in the benchmark: the master of a phone's
// pseudo-terminal, driven from the benchmark's main thread. It writes frames
// whole, cuts the frames that come back, and times round trips. Bytes that
// are no frame (the agent's handshake, anything before the first frame) are
// skipped on the way to the next head.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sandbox.hpp"

namespace linebench {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;
using Millis = std::chrono::milliseconds;

constexpr uint32_t kEchoMark = 0xEC40EC40u;  // result word of the benchmark's echo peers

// What the benchmark needs of a frame that came back.
struct FrameInfo {
    bool pre_response = false;
    uint32_t cmd = 0;
    uint32_t word16 = 0;  // the first body word: result_code, or the echo's mark
    size_t size = 0;
};

// A command frame with a fresh CRC.
Bytes pc_frame(uint32_t cmd, std::span<const uint8_t> body);

class PcSide {
public:
    explicit PcSide(int master_fd);

    bool send(std::span<const uint8_t> bytes, Millis timeout = Millis(5000));
    // The next whole frame; nothing when none is whole by the deadline.
    std::optional<FrameInfo> next_frame(Clock::time_point deadline);
    // Sends the frame and reads until its answer (the first frame that is
    // not the pre-response) is in. Nothing on time-out.
    std::optional<FrameInfo> exchange(std::span<const uint8_t> frame, Millis timeout = Millis(5000));

    // The PC's first move on a fresh line: one stray byte, which is also the
    // answer to the agent's handshake if it offers one; then everything the
    // phone sends before the first frame is read and dropped. Waits up to
    // `offer_wait` for a handshake offer; when one came, also for the agent's
    // "handshake success." line. Returns a note of what it saw.
    std::string open_line(const sandbox::Daemon* agent, Millis offer_wait);
    // One byte that is no head, as garbage on the line.
    bool send_stray_byte();
    // Reads and drops bytes until the line stays quiet for `quiet`.
    void drain(Millis quiet);

    // Pipelined transfer: sends `count` copies of `frame`, keeping at most
    // `window` without an answer, and returns the seconds from the first
    // byte out to the last answer in; nothing on time-out.
    std::optional<double> pipeline(std::span<const uint8_t> frame, size_t count, size_t window, Millis timeout);

    size_t skipped() const { return skipped_; }

private:
    // Reads what is there into the buffer, waiting until the deadline.
    bool fill(Clock::time_point deadline);
    std::optional<FrameInfo> cut_frame();

    int fd_;
    std::vector<uint8_t> buf_;
    size_t start_ = 0;
    size_t end_ = 0;
    size_t skipped_ = 0;
};

}  // namespace linebench
