// Little-endian fields at fixed offsets: the one reader and writer of every
// integer on both links. Each access checks the offset against the buffer, so
// a field that would lie past the end reads as 0 and is not written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace bytes {

inline uint16_t get_le16(std::span<const uint8_t> buf, size_t off) {
    if (off > buf.size() || buf.size() - off < 2) return 0;
    return static_cast<uint16_t>(buf[off] | (buf[off + 1] << 8));
}

inline uint32_t get_le32(std::span<const uint8_t> buf, size_t off) {
    if (off > buf.size() || buf.size() - off < 4) return 0;
    return static_cast<uint32_t>(buf[off]) | (static_cast<uint32_t>(buf[off + 1]) << 8) |
           (static_cast<uint32_t>(buf[off + 2]) << 16) | (static_cast<uint32_t>(buf[off + 3]) << 24);
}

inline bool put_le16(std::span<uint8_t> buf, size_t off, uint16_t v) {
    if (off > buf.size() || buf.size() - off < 2) return false;
    buf[off] = static_cast<uint8_t>(v);
    buf[off + 1] = static_cast<uint8_t>(v >> 8);
    return true;
}

inline bool put_le32(std::span<uint8_t> buf, size_t off, uint32_t v) {
    if (off > buf.size() || buf.size() - off < 4) return false;
    for (size_t i = 0; i < 4; ++i) buf[off + i] = static_cast<uint8_t>(v >> (8 * i));
    return true;
}

}  // namespace bytes
