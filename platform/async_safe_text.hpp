// Bounded text building that a signal handler may use: no stdio, no locale,
// no allocation. Each call appends at pos into out (cap bytes), always leaves
// room for a terminator, and returns the new end; what does not fit is cut.
#pragma once

#include <cstddef>
#include <cstring>

namespace platform {

inline size_t append_text(char* out, size_t pos, size_t cap, const char* text, size_t len) {
    size_t room = cap > pos + 1 ? cap - pos - 1 : 0;
    size_t n = len < room ? len : room;
    memcpy(out + pos, text, n);
    return pos + n;
}

inline size_t append_decimal(char* out, size_t pos, size_t cap, unsigned long v) {
    char digits[24];
    size_t n = 0;
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0 && n < sizeof(digits));
    while (n > 0 && pos + 1 < cap) out[pos++] = digits[--n];
    return pos;
}

}  // namespace platform
