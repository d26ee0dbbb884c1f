// log_err and log_dbg: one record each, formatted into a 1025-byte buffer of
// which the formatter may use 1024 bytes, so the text is always terminated and
// a longer line is cut there. The buffer is per thread, so two threads logging
// at once can neither mix nor lose a line.
#include "process/pub_util.hpp"

#include <cstdarg>
#include <cstring>

#include "platform/platform.hpp"

std::atomic<uint32_t> OUTPUT_MORE_LOG{0};

namespace {

thread_local char t_log_buf[kLogBufSize];

void log_v(int priority, const char* fmt, va_list args) {
    memset(t_log_buf, 0, sizeof(t_log_buf));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(t_log_buf, kLogBufSize - 1, fmt, args);
#pragma GCC diagnostic pop
    platform::log_write(priority, kLogTag, t_log_buf);
}

}  // namespace

void log_err(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    log_v(platform::kLogError, fmt, args);
    va_end(args);
}

void log_dbg(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    log_v(platform::kLogDebug, fmt, args);
    va_end(args);
}

void pub_util_log_hex(const char* label, const uint8_t* data, size_t count, size_t text_size) {
    char text[1500];
    if (text_size > sizeof(text)) text_size = sizeof(text);
    size_t pos = static_cast<size_t>(snprintf(text, text_size, "%s", label));
    for (size_t i = 0; i < count && pos + 7 < text_size; ++i) {
        pos += static_cast<size_t>(snprintf(text + pos, text_size - pos, "0x%02x, ", data[i]));
    }
    log_dbg("%s", text);
}
