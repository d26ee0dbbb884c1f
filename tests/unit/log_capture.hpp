// Captures what the process writes to standard error (the host log) while it
// lives, so a test can look at the log lines.
#pragma once

#include <cstdio>
#include <fcntl.h>
#include <string>
#include <unistd.h>

class LogCapture {
public:
    LogCapture() {
        char path[] = "/tmp/ovta-log-XXXXXX";
        fd_ = mkstemp(path);
        unlink(path);
        fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        dup2(fd_, STDERR_FILENO);
    }
    ~LogCapture() { restore(); close(fd_); }

    // Everything logged so far.
    std::string text() {
        std::string out;
        char buf[4096];
        for (off_t off = 0;;) {
            ssize_t n = pread(fd_, buf, sizeof(buf), off);
            if (n <= 0) break;
            out.append(buf, static_cast<size_t>(n));
            off += n;
        }
        return out;
    }
    bool contains(const std::string& s) { return text().find(s) != std::string::npos; }
    size_t count(const std::string& s) {
        std::string t = text();
        size_t n = 0;
        for (size_t p = t.find(s); p != std::string::npos; p = t.find(s, p + 1)) ++n;
        return n;
    }

private:
    void restore() {
        if (saved_ >= 0) {
            dup2(saved_, STDERR_FILENO);
            close(saved_);
            saved_ = -1;
        }
    }
    int fd_ = -1;
    int saved_ = -1;
};
