#include "pc_side.hpp"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <thread>
#include <unistd.h>

#include "pc/lib/pc_frame_codec.hpp"

namespace linebench {
namespace {

constexpr size_t kBufSize = 4u << 20;
constexpr uint32_t kFrameLenMax = 1u << 20;
constexpr uint8_t kHead[4] = {0xAA, 0xBB, 0xCC, 0xDD};

uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

int millis_until(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

}  // namespace

Bytes pc_frame(uint32_t cmd, std::span<const uint8_t> body) {
    auto f = tools::build_pc_frame(cmd, body);
    return f ? *f : Bytes{};
}

PcSide::PcSide(int master_fd) : fd_(master_fd), buf_(kBufSize) {}

bool PcSide::send(std::span<const uint8_t> bytes, Millis timeout) {
    return sandbox::write_all(fd_, bytes, timeout);
}

bool PcSide::fill(Clock::time_point deadline) {
    if (start_ == end_) start_ = end_ = 0;
    if (end_ == buf_.size()) {
        memmove(buf_.data(), buf_.data() + start_, end_ - start_);
        end_ -= start_;
        start_ = 0;
    }
    for (;;) {
        ssize_t n = read(fd_, buf_.data() + end_, buf_.size() - end_);
        if (n > 0) {
            end_ += static_cast<size_t>(n);
            return true;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return false;
        pollfd p{fd_, POLLIN, 0};
        int r = poll(&p, 1, millis_until(deadline));
        if (r == 0) return false;
        if (r < 0 && errno != EINTR) return false;
    }
}

// A head with a possible frame_len starts a frame; any other byte is skipped.
std::optional<FrameInfo> PcSide::cut_frame() {
    for (;;) {
        size_t have = end_ - start_;
        if (have < 8) return std::nullopt;
        const uint8_t* p = buf_.data() + start_;
        uint32_t frame_len = le32(p + 4);
        if (memcmp(p, kHead, 4) != 0 || frame_len < 8 || frame_len > kFrameLenMax) {
            ++start_;
            ++skipped_;
            continue;
        }
        if (have < frame_len + 8) return std::nullopt;
        FrameInfo f;
        f.size = frame_len + 8;
        f.pre_response = frame_len == 8 && p[9] == 2;
        f.cmd = le32(p + 12);
        f.word16 = frame_len >= 16 ? le32(p + 16) : 0;
        start_ += f.size;
        return f;
    }
}

std::optional<FrameInfo> PcSide::next_frame(Clock::time_point deadline) {
    for (;;) {
        if (auto f = cut_frame()) return f;
        if (!fill(deadline)) return std::nullopt;
    }
}

std::optional<FrameInfo> PcSide::exchange(std::span<const uint8_t> frame, Millis timeout) {
    auto deadline = Clock::now() + timeout;
    if (!send(frame, timeout)) return std::nullopt;
    for (;;) {
        auto f = next_frame(deadline);
        if (!f || !f->pre_response) return f;
    }
}

bool PcSide::send_stray_byte() {
    const uint8_t stray = 0x00;
    return send(std::span<const uint8_t>(&stray, 1));
}

void PcSide::drain(Millis quiet) {
    while (fill(Clock::now() + quiet)) {
    }
    start_ = end_ = 0;
}

std::string PcSide::open_line(const sandbox::Daemon* agent, Millis offer_wait) {
    bool offered = fill(Clock::now() + offer_wait);
    send_stray_byte();
    std::string note = offered ? "handshake offered" : "no handshake offer";
    if (offered && agent != nullptr) {
        note += agent->wait_for_log("handshake success.", Millis(5000)) ? ", answered" : ", answer not logged";
    }
    drain(Millis(300));
    return note;
}

std::optional<double> PcSide::pipeline(std::span<const uint8_t> frame, size_t count, size_t window,
                                       Millis timeout) {
    auto t0 = Clock::now();
    auto deadline = t0 + timeout;
    size_t sent = 0, answered = 0, off = 0;
    while (answered < count) {
        bool writing = sent < count && sent - answered < window;
        pollfd p{fd_, static_cast<short>(POLLIN | (writing ? POLLOUT : 0)), 0};
        int r = poll(&p, 1, millis_until(deadline));
        if (r == 0) return std::nullopt;
        if (r < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (writing && (p.revents & POLLOUT)) {
            ssize_t n = write(fd_, frame.data() + off, frame.size() - off);
            if (n > 0) {
                off += static_cast<size_t>(n);
                if (off == frame.size()) {
                    off = 0;
                    ++sent;
                }
            } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
                return std::nullopt;
            }
        }
        if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
            if (!fill(Clock::now())) {
                if (p.revents & (POLLHUP | POLLERR)) return std::nullopt;
            }
            while (auto f = cut_frame()) {
                if (!f->pre_response) ++answered;
            }
        }
    }
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

}  // namespace linebench
