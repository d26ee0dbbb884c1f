#include "sandbox_daemon.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sandbox {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kBwrap = "/usr/bin/bwrap";

// Reads bubblewrap's info JSON from `fd` to its end and returns "child-pid".
// The whole text must be read: bubblewrap writes it in pieces, and a closed
// pipe would kill it by SIGPIPE between two of them, before it lets its child
// go on, which then waits for ever.
pid_t read_child_pid(int fd, Daemon::Millis timeout) {
    auto deadline = Clock::now() + timeout;
    std::string json;
    for (;;) {
        auto left = std::chrono::duration_cast<Daemon::Millis>(deadline - Clock::now()).count();
        if (left <= 0) break;
        pollfd pf{fd, POLLIN, 0};
        int r = poll(&pf, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        char buf[256];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        json.append(buf, static_cast<size_t>(n));
        if (json.find('}') != std::string::npos) break;
    }
    auto key = json.find("\"child-pid\"");
    if (key == std::string::npos) return -1;
    auto colon = json.find(':', key);
    if (colon == std::string::npos) return -1;
    size_t p = colon + 1;
    while (p < json.size() && json[p] == ' ') ++p;
    size_t q = p;
    while (q < json.size() && json[q] >= '0' && json[q] <= '9') ++q;
    return q > p ? static_cast<pid_t>(std::stol(json.substr(p, q - p))) : -1;
}

// A file in the phone's directory for the program's standard error: its write
// end in err[1] and a read end in err[0], as a pipe would give them.
bool open_log_file(const Phone& phone, int err[2]) {
    std::string path = phone.root() + "/stderr-XXXXXX";
    err[1] = mkostemp(path.data(), O_CLOEXEC | O_APPEND);
    if (err[1] < 0) return false;
    err[0] = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    return err[0] >= 0;
}

}  // namespace


std::string default_daemon_path() {
#ifdef OVTA_BINARY_DIR
    return OVTA_BINARY_DIR "/ovta-amt";
#else
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return (self.parent_path() / "ovta-amt").string();
#endif
}

std::unique_ptr<Daemon> Daemon::start(const Phone& phone, const std::vector<std::string>& args,
                                      std::string* why) {
    return start(phone, default_daemon_path(), args, why);
}

std::unique_ptr<Daemon> Daemon::start(const Phone& phone, const std::string& program,
                                      const std::vector<std::string>& args, std::string* why,
                                      const DaemonOptions& options) {
    std::string scratch;
    if (why == nullptr) why = &scratch;
    int out[2] = {-1, -1}, err[2] = {-1, -1}, info[2] = {-1, -1}, stop[2] = {-1, -1};
    bool err_ok = options.log_through_file ? open_log_file(phone, err) : pipe2(err, O_CLOEXEC) == 0;
    if (pipe2(out, O_CLOEXEC) != 0 || !err_ok || pipe2(info, O_CLOEXEC) != 0 || pipe2(stop, O_CLOEXEC) != 0) {
        *why = std::string("pipe: ") + strerror(errno);
        for (int fd : {out[0], out[1], err[0], err[1], info[0], info[1], stop[0], stop[1]}) {
            if (fd >= 0) close(fd);
        }
        return nullptr;
    }
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);

    // Everything the child needs is built before the fork: after it, only
    // async-signal-safe calls are allowed in a threaded parent.
    std::vector<std::string> words = {kBwrap, "--die-with-parent", "--info-fd", std::to_string(info[1])};
    for (std::string& a : phone.bwrap_args()) words.push_back(std::move(a));
    for (const auto& [name, value] : options.env) words.insert(words.end(), {"--setenv", name, value});
    words.push_back(program);
    for (const std::string& a : args) words.push_back(a);
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);

    pid_t pid = fork();
    if (pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        sigaction(SIGPIPE, &dfl, nullptr);
        // A group of its own: a Ctrl-C in the terminal reaches the starting
        // process alone, which passes it on as it sees fit. Bubblewrap killed
        // by it would take its program down with SIGKILL, without its stop.
        setpgid(0, 0);
        if (null_fd >= 0) dup2(null_fd, STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        // Descriptors the test process inherited (ctest's output pipe among
        // them) must not live on in the sandbox: a leftover holder would keep
        // ctest waiting for the end of the test's output.
        close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
        fcntl(info[1], F_SETFD, 0);
        execv(kBwrap, argv.data());
        _exit(127);
    }
    int fork_errno = errno;
    close(out[1]);
    close(err[1]);
    close(info[1]);
    if (null_fd >= 0) close(null_fd);
    if (pid < 0) {
        for (int fd : {out[0], err[0], info[0], stop[0], stop[1]}) close(fd);
        *why = std::string("fork: ") + strerror(fork_errno);
        return nullptr;
    }

    std::unique_ptr<Daemon> d(new Daemon());
    d->bwrap_pid_ = pid;
    d->out_fd_ = out[0];
    d->err_fd_ = err[0];
    d->err_is_file_ = options.log_through_file;
    d->stop_pipe_[0] = stop[0];
    d->stop_pipe_[1] = stop[1];
    d->reader_ = std::thread([p = d.get()] { p->read_output(); });
    d->reaper_ = std::thread([p = d.get()] { p->reap(); });
    d->info_fd_ = info[0];  // open for the program's life: no SIGPIPE for bubblewrap
    d->child_pid_ = read_child_pid(info[0], Millis(10000));
    if (d->child_pid_ <= 0) {
        d->wait_exit(Millis(5000));
        std::string text;
        for (const std::string& l : d->log_lines()) text += l + "\n";
        *why = "bubblewrap did not start " + program + ": " + text;
        return nullptr;
    }
    return d;
}

Daemon::~Daemon() {
    if (running()) {
        if (child_pid_ > 0) kill(child_pid_, SIGKILL);
        kill(bwrap_pid_, SIGKILL);
    }
    if (reaper_.joinable()) reaper_.join();
    // Something that outlived bubblewrap may still hold the output pipes;
    // after a grace period the reader is told to stop instead.
    if (!wait_exit(Millis(5000))) {
        char b = 1;
        ssize_t n = write(stop_pipe_[1], &b, 1);
        (void)n;
    }
    if (reader_.joinable()) reader_.join();
    for (int fd : stop_pipe_) {
        if (fd >= 0) close(fd);
    }
    if (out_fd_ >= 0) close(out_fd_);
    if (err_fd_ >= 0) close(err_fd_);
    if (info_fd_ >= 0) close(info_fd_);
}

void Daemon::append_err(const char* data, size_t len) {
    // Caller holds mu_.
    for (size_t i = 0; i < len; ++i) {
        if (data[i] == '\n') {
            err_lines_.push_back(std::move(err_partial_));
            err_partial_.clear();
        } else {
            err_partial_.push_back(data[i]);
        }
    }
}

void Daemon::drain_log_file() {
    // Caller holds mu_. A file read at its end gives 0 and stays open.
    char buf[4096];
    ssize_t n;
    while ((n = read(err_fd_, buf, sizeof(buf))) > 0) append_err(buf, static_cast<size_t>(n));
}

void Daemon::read_output() {
    pollfd fds[3] = {{out_fd_, POLLIN, 0}, {err_is_file_ ? -1 : err_fd_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    int open_count = err_is_file_ ? 1 : 2;
    char buf[4096];
    while (open_count > 0) {
        int r = poll(fds, 3, err_is_file_ ? 50 : -1);
        if (r < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (err_is_file_) {
            std::lock_guard<std::mutex> hold(mu_);
            drain_log_file();
        }
        if (fds[2].revents != 0) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            ssize_t n = read(fds[i].fd, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            std::lock_guard<std::mutex> hold(mu_);
            if (n <= 0) {
                fds[i].fd = -1;
                --open_count;
            } else if (i == 0) {
                out_text_.append(buf, static_cast<size_t>(n));
            } else {
                append_err(buf, static_cast<size_t>(n));
            }
        }
        cv_.notify_all();
    }
    std::lock_guard<std::mutex> hold(mu_);
    if (err_is_file_) drain_log_file();
    if (!err_partial_.empty()) err_lines_.push_back(std::move(err_partial_));
    err_partial_.clear();
    output_done_ = true;
    cv_.notify_all();
}

void Daemon::reap() {
    int status = 0;
    pid_t r;
    do {
        r = waitpid(bwrap_pid_, &status, 0);
    } while (r < 0 && errno == EINTR);
    int code = -1;
    if (r == bwrap_pid_) {
        if (WIFEXITED(status)) code = WEXITSTATUS(status);
        else if (WIFSIGNALED(status)) code = 128 + WTERMSIG(status);
    }
    std::lock_guard<std::mutex> hold(mu_);
    exit_code_ = code;
    cv_.notify_all();
}

bool Daemon::wait_for_log(std::string_view text, Millis timeout) const {
    return wait_for_log_count(text, 1, timeout);
}

bool Daemon::wait_for_log_count(std::string_view text, size_t count, Millis timeout) const {
    std::unique_lock<std::mutex> lock(mu_);
    size_t seen = 0, checked = 0;
    return cv_.wait_for(lock, timeout, [&] {
        for (; checked < err_lines_.size(); ++checked) {
            if (err_lines_[checked].find(text) != std::string::npos) ++seen;
        }
        return seen >= count;
    });
}

size_t Daemon::count_log(std::string_view text) const {
    std::lock_guard<std::mutex> hold(mu_);
    size_t n = 0;
    for (const std::string& l : err_lines_) n += l.find(text) != std::string::npos;
    return n;
}

std::vector<std::string> Daemon::log_lines() const {
    std::lock_guard<std::mutex> hold(mu_);
    return err_lines_;
}

std::string Daemon::stdout_text() const {
    std::lock_guard<std::mutex> hold(mu_);
    return out_text_;
}

bool Daemon::signal(int sig) const {
    std::lock_guard<std::mutex> hold(mu_);
    // Once bubblewrap is reaped the id may belong to another process.
    if (exit_code_ || child_pid_ <= 0) return false;
    return kill(child_pid_, sig) == 0;
}

std::optional<int> Daemon::wait_exit(Millis timeout) {
    std::unique_lock<std::mutex> lock(mu_);
    if (!cv_.wait_for(lock, timeout, [&] { return exit_code_.has_value() && output_done_; })) {
        return std::nullopt;
    }
    return exit_code_;
}

bool Daemon::running() const {
    std::lock_guard<std::mutex> hold(mu_);
    return !exit_code_.has_value();
}

}  // namespace sandbox
