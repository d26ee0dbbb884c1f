// Shared by the two echo peers of the line benchmark: blocking byte I/O and
// the two frame formats, with nothing but the C library. The peers answer at
// once and never look at a CRC; their answers carry kEchoMark where a
// response's result_code stands, so the benchmark can tell an answer of the
// echo from one the agent built itself.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <unistd.h>

namespace peer {

constexpr uint32_t kEchoMark = 0xEC40EC40u;
constexpr uint32_t kFrameLenMax = 1u << 20;
constexpr uint8_t kPreResponse[16] = {0xAA, 0xBB, 0xCC, 0xDD, 0x08, 0x00, 0x00, 0x00,
                                      0x02, 0x02, 0x00, 0x00, 0x76, 0x4A, 0xEE, 0x1D};

inline uint32_t get_le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

inline void put_le32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

inline bool write_all(int fd, const uint8_t* data, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, data, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Buffered reads from a blocking descriptor.
class Reader {
public:
    explicit Reader(int fd) : fd_(fd) {}

    bool read_exact(uint8_t* out, size_t n) {
        while (n > 0) {
            if (pos_ == len_ && !fill()) return false;
            size_t take = len_ - pos_ < n ? len_ - pos_ : n;
            memcpy(out, buf_ + pos_, take);
            pos_ += take;
            out += take;
            n -= take;
        }
        return true;
    }

    // The next PC frame into out (at least kFrameLenMax + 8 bytes): skips
    // bytes until the head AA BB CC DD, and a head whose frame_len is
    // impossible. Returns the frame's size, 0 when the line ends.
    size_t read_pc_frame(uint8_t* out) {
        static const uint8_t head[4] = {0xAA, 0xBB, 0xCC, 0xDD};
        for (;;) {
            int matched = 0;
            while (matched < 4) {
                uint8_t b;
                if (!read_exact(&b, 1)) return 0;
                if (b == head[matched]) {
                    ++matched;
                } else {
                    matched = b == head[0] ? 1 : 0;
                }
            }
            memcpy(out, head, 4);
            if (!read_exact(out + 4, 4)) return 0;
            uint32_t frame_len = get_le32(out + 4);
            if (frame_len < 8 || frame_len > kFrameLenMax) continue;
            if (!read_exact(out + 8, frame_len)) return 0;
            return frame_len + 8;
        }
    }

private:
    bool fill() {
        for (;;) {
            ssize_t n = read(fd_, buf_, sizeof(buf_));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            pos_ = 0;
            len_ = static_cast<size_t>(n);
            return true;
        }
    }

    int fd_;
    uint8_t buf_[65536];
    size_t pos_ = 0;
    size_t len_ = 0;
};

// A response frame of frame_len + 8 bytes in out: head, frame_len, tag 2,
// cmd, then the body left as the caller wrote it, and a zero CRC.
inline size_t finish_response(uint8_t* out, uint32_t cmd, uint32_t body_len) {
    const uint8_t head[12] = {0xAA, 0xBB, 0xCC, 0xDD, 0, 0, 0, 0, 0x02, 0x00, 0x00, 0x00};
    memcpy(out, head, sizeof(head));
    put_le32(out + 4, body_len + 12);
    put_le32(out + 12, cmd);
    put_le32(out + 16 + body_len, 0);
    return body_len + 20;
}

}  // namespace peer
