// A program run in the phone's sandbox, by default the daemon, with its
// standard error kept line by line and its standard output kept whole.
//
// Threads: the one that calls start() forks bubblewrap, which dies with that
// thread (--die-with-parent), so start from a thread that outlives the
// program. A reader thread owns the two pipes and appends to the captured
// output; a reaper thread waits for bubblewrap and records the exit code.
// Both publish under `mu_` and wake `cv_`; every accessor reads under `mu_`.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <utility>
#include <vector>

#include "sandbox_phone.hpp"

namespace sandbox {

// The daemon next to this program, or in OVTA_BINARY_DIR when that is defined.
std::string default_daemon_path();

// How a program is run.
struct DaemonOptions {
    // Standard error goes to a file in the phone's directory, read every 50 ms,
    // instead of a pipe whose reader wakes at every line: for measurements, so
    // that the program's log costs the measuring process no wake-up per line.
    bool log_through_file = false;
    // Environment for this program only, beside the phone's own.
    std::vector<std::pair<std::string, std::string>> env;
};

class Daemon {
public:
    using Millis = std::chrono::milliseconds;

    // Runs `program` with `args` (argv[0] is `program`) in the phone. Null,
    // with the reason in `why`, when bubblewrap could not start it.
    static std::unique_ptr<Daemon> start(const Phone& phone, const std::string& program,
                                         const std::vector<std::string>& args,
                                         std::string* why = nullptr, const DaemonOptions& options = {});
    // The same with the daemon as the program.
    static std::unique_ptr<Daemon> start(const Phone& phone, const std::vector<std::string>& args,
                                         std::string* why = nullptr);
    // Kills the program with SIGKILL if it still runs.
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Process id of the program itself (not of bubblewrap).
    pid_t pid() const { return child_pid_; }

    // Waits until a line of standard error contains `text`.
    bool wait_for_log(std::string_view text, Millis timeout) const;
    // Waits until at least `count` lines contain `text`.
    bool wait_for_log_count(std::string_view text, size_t count, Millis timeout) const;
    // Number of lines so far that contain `text`.
    size_t count_log(std::string_view text) const;
    // Every line of standard error so far, in order, without the line end.
    std::vector<std::string> log_lines() const;
    // Standard output so far, byte for byte.
    std::string stdout_text() const;

    // Sends `sig` to the program; false once it has ended.
    bool signal(int sig) const;
    // Exit code of the program (128 + n after signal n), once it has ended and
    // its output is read to the end; nothing on time-out.
    std::optional<int> wait_exit(Millis timeout);
    bool running() const;

private:
    Daemon() = default;
    void read_output();
    void reap();
    void append_err(const char* data, size_t len);
    void drain_log_file();

    pid_t bwrap_pid_ = -1;
    pid_t child_pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
    bool err_is_file_ = false;  // err_fd_ reads a file, not a pipe
    int info_fd_ = -1;
    int stop_pipe_[2] = {-1, -1};  // a byte here ends the reader

    mutable std::mutex mu_;
    mutable std::condition_variable cv_;
    std::vector<std::string> err_lines_;  // guarded by mu_
    std::string err_partial_;             // guarded by mu_
    std::string out_text_;                // guarded by mu_
    bool output_done_ = false;            // guarded by mu_
    std::optional<int> exit_code_;        // guarded by mu_

    std::thread reader_;
    std::thread reaper_;
};

}  // namespace sandbox
