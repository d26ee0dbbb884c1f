// Host log: each record goes to standard error in logcat's brief form,
// "P/TAG(PID): text", one output line per line of the record. A record's lines
// are written under one lock so records of different threads do not interleave.
// A null tag prints as the program's name, the default tag that liblog puts
// in its place.
#include "platform/async_safe_text.hpp"
#include "platform/platform.hpp"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <unistd.h>

namespace platform {
namespace {

std::mutex g_log_lock;

char priority_letter(int priority) {
    switch (priority) {
        case 2: return 'V';
        case 3: return 'D';
        case 4: return 'I';
        case 5: return 'W';
        case 6: return 'E';
        case 7: return 'F';
        default: return '?';
    }
}

void write_all(int fd, const char* buf, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, buf, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
}

// Writes the record line by line. A line ends at "\n" (a "\r" in front of it
// goes with it); a record that ends in a line end gives no empty last line.
void emit_record(int priority, const char* tag, const char* text) {
    char line[1200];
    if (tag == nullptr) tag = program_invocation_short_name;
    size_t prefix = 0;
    line[prefix++] = priority_letter(priority);
    line[prefix++] = '/';
    prefix = append_text(line, prefix, sizeof(line), tag, strlen(tag));
    prefix = append_text(line, prefix, sizeof(line), "(", 1);
    prefix = append_decimal(line, prefix, sizeof(line), static_cast<unsigned long>(getpid()));
    prefix = append_text(line, prefix, sizeof(line), "): ", 3);

    const char* p = text;
    for (;;) {
        const char* nl = strchr(p, '\n');
        size_t len = nl ? static_cast<size_t>(nl - p) : strlen(p);
        if (len > 0 && p[len - 1] == '\r' && nl) --len;
        // Long lines go out in pieces, each with the prefix.
        size_t done = 0;
        do {
            size_t pos = append_text(line, prefix, sizeof(line) - 1, p + done, len - done);
            size_t took = pos - prefix;
            line[pos++] = '\n';
            write_all(STDERR_FILENO, line, pos);
            done += took;
        } while (done < len);
        if (!nl || nl[1] == '\0') break;
        p = nl + 1;
    }
}

}  // namespace

void log_write(int priority, const char* tag, const char* text) {
    std::lock_guard<std::mutex> hold(g_log_lock);
    emit_record(priority, tag, text);
}

void log_write_async_safe(int priority, const char* tag, const char* text) {
    // No lock: this runs on a thread that faulted, possibly inside log_write.
    emit_record(priority, tag, text);
}

}  // namespace platform
