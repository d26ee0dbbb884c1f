// ovta-pc.exe, the Windows build, under Wine against the real agent in the
// sandbox. The phone's serial line is relayed to a second pseudo-terminal
// whose slave is a COM port of the Wine prefix (dosdevices/comN), as a USB
// serial adapter would be on a Windows PC. The relay can stop carrying the
// phone's bytes (a phone that stops answering) and can hang the line up.
//
// Runs when OVTA_WINDOWS_BUILD names the windows build's folder (with
// ovta-pc.exe and its prefix, wine/); skipped otherwise. scripts/test.sh
// windows sets it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "phone_test.hpp"

namespace e2e {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct ExeRun {
    int status = -1;
    std::string out;  // line ends as Windows writes them, CR LF, made LF
    std::string err;
};

std::string read_text(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    std::string text = s.str();
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue;
        out.push_back(text[i]);
    }
    return out;
}

// Copies bytes between the phone's line and the COM port's pseudo-terminal.
class Relay {
public:
    Relay(int phone, int com) : phone_(phone), com_(com), thread_([this] { run(); }) {}
    ~Relay() {
        stop_ = true;
        thread_.join();
        hang_up();
    }
    // The phone's bytes no longer reach the PC; the PC's still reach the phone.
    void mute_phone() { phone_muted_ = true; }
    // Bytes that the PC wrote, whether they went on or not.
    size_t from_pc() const { return from_pc_; }
    // Closes the PC's side, as a USB serial adapter that is pulled out.
    void hang_up() {
        int fd = com_.exchange(-1);
        if (fd >= 0) close(fd);
    }

private:
    void run() {
        uint8_t buf[4096];
        while (!stop_) {
            const int com = com_.load();
            pollfd p[2] = {{phone_, POLLIN, 0}, {com, POLLIN, 0}};
            if (poll(p, com >= 0 ? 2 : 1, 20) <= 0) continue;
            if (p[0].revents & POLLIN) {
                ssize_t n = read(phone_, buf, sizeof(buf));
                if (n > 0 && !phone_muted_ && com >= 0) {
                    sandbox::write_all(com, {buf, static_cast<size_t>(n)}, 1000ms);
                }
            }
            if (com >= 0 && (p[1].revents & POLLIN)) {
                ssize_t n = read(com, buf, sizeof(buf));
                if (n > 0) {
                    from_pc_ += static_cast<size_t>(n);
                    sandbox::write_all(phone_, {buf, static_cast<size_t>(n)}, 1000ms);
                }
            }
        }
    }

    int phone_;
    std::atomic<int> com_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> phone_muted_{false};
    std::atomic<size_t> from_pc_{0};
    std::thread thread_;
};

class OvtaPcOnWine : public PhoneTest {
protected:
    void SetUp() override {
        const char* build = getenv("OVTA_WINDOWS_BUILD");
        if (build == nullptr || !fs::exists(fs::path(build) / "ovta-pc.exe")) {
            GTEST_SKIP() << "OVTA_WINDOWS_BUILD names no windows build (scripts/test.sh windows)";
        }
        build_ = build;
        PhoneTest::SetUp();
        if (IsSkipped()) return;
        ASSERT_NE(launch_with_pc(), nullptr);
        int master = -1;
        int slave = -1;
        ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        slave_ = slave;
        // Only the relay holds the master: a copy in ovta-pc.exe would keep
        // the line from hanging up.
        fcntl(master, F_SETFD, FD_CLOEXEC);
        fcntl(slave, F_SETFD, FD_CLOEXEC);
        termios tio{};
        tcgetattr(slave, &tio);
        cfmakeraw(&tio);
        tcsetattr(slave, TCSANOW, &tio);
        // The COM port's number follows the pseudo-terminal's, so that tests
        // running at once each have their own.
        const std::string pts = ttyname(slave);
        com_ = "COM" + std::to_string(20 + std::stoi(pts.substr(pts.rfind('/') + 1)) % 200);
        const fs::path link = build_ / "wine" / "dosdevices" / ("com" + com_.substr(3));
        fs::create_directories(link.parent_path());
        fs::remove(link);
        fs::create_symlink(pts, link);
        relay_ = std::make_unique<Relay>(phone_->pc_master(), master);
        out_dir_ = fs::path(::testing::TempDir()) / ("ovta_pc_wine_" + std::to_string(getpid()));
        fs::create_directories(out_dir_);
    }

    void TearDown() override {
        relay_.reset();
        if (slave_ >= 0) close(slave_);
        if (!out_dir_.empty()) fs::remove_all(out_dir_);
        PhoneTest::TearDown();
    }

    // Starts ovta-pc.exe on the COM port with `args`.
    void start(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {OVTA_SOURCE_DIR "/cmake/wine-run.sh", (build_ / "wine").string(),
                                         (build_ / "ovta-pc.exe").string(), "--device", com_};
        argv.insert(argv.end(), args.begin(), args.end());
        const std::string out = (out_dir_ / "out").string();
        const std::string err = (out_dir_ / "err").string();
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int n = open("/dev/null", O_RDONLY);
            dup2(n, 0);
            dup2(o, 1);
            dup2(e, 2);
            std::vector<char*> cargv;
            for (std::string& a : argv) cargv.push_back(a.data());
            cargv.push_back(nullptr);
            execv(cargv[0], cargv.data());
            _exit(127);
        }
    }

    // Waits for the program's end (killed after `limit`) and collects its output.
    ExeRun finish(std::chrono::seconds limit = 30s) {
        ExeRun run;
        const auto until = std::chrono::steady_clock::now() + limit;
        int status = 0;
        pid_t done = 0;
        while ((done = waitpid(pid_, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(10ms);
        }
        if (done == 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            ADD_FAILURE() << "ovta-pc.exe did not end";
        }
        pid_ = -1;
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.out = read_text(out_dir_ / "out");
        run.err = read_text(out_dir_ / "err");
        return run;
    }

    ExeRun run(const std::vector<std::string>& args) {
        start(args);
        return finish();
    }

    // Waits until the PC has written a whole command frame (at least 20 bytes).
    bool frame_sent() {
        const auto until = std::chrono::steady_clock::now() + 20s;
        while (relay_->from_pc() < 20) {
            if (std::chrono::steady_clock::now() > until) return false;
            std::this_thread::sleep_for(10ms);
        }
        return true;
    }

    fs::path build_;
    fs::path out_dir_;
    std::string com_;
    int slave_ = -1;
    pid_t pid_ = -1;
    std::unique_ptr<Relay> relay_;
};

TEST_F(OvtaPcOnWine, CommandsReachTheAgentThroughTheComPortAndTheirAnswersComeBack) {
    ExeRun set = run({"board", "set", "WIN-0042"});
    EXPECT_EQ(set.status, 0) << set.out << set.err;
    ExeRun get = run({"board", "get"});
    EXPECT_EQ(get.status, 0) << get.out << get.err;
    EXPECT_NE(get.out.find("board number: WIN-0042"), std::string::npos) << get.out;

    ExeRun date = run({"date", "set", "2026-11-26"});
    EXPECT_EQ(date.status, 0) << date.out << date.err;
    ExeRun back = run({"--json", "date", "get"});
    EXPECT_EQ(back.status, 0) << back.out << back.err;
    EXPECT_NE(back.out.find(R"("value":"2026-11-26")"), std::string::npos) << back.out;
}

TEST_F(OvtaPcOnWine, PhoneThatStopsAnsweringEndsTheCommandAtItsTimeOut) {
    ExeRun first = run({"version"});
    EXPECT_EQ(first.status, 0) << first.out << first.err;
    relay_->mute_phone();
    ExeRun silent = run({"--timeout", "1500", "version"});
    EXPECT_EQ(silent.status, 2) << silent.out << silent.err;
    EXPECT_NE(silent.out.find("version: nothing came within 1500 ms"), std::string::npos) << silent.out;
}

TEST_F(OvtaPcOnWine, LineThatHangsUpEndsTheWaitAsAFailedLine) {
    relay_->mute_phone();
    start({"--timeout", "60000", "version"});
    ASSERT_TRUE(frame_sent());
    relay_->hang_up();
    ExeRun r = finish();
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    EXPECT_NE(r.out.find("version: the line failed (" + com_ + ")"), std::string::npos) << r.out;
}

TEST_F(OvtaPcOnWine, CtrlCEndsTheWaitAndSaysSo) {
    relay_->mute_phone();
    start({"--timeout", "60000", "version"});
    ASSERT_TRUE(frame_sent());
    kill(pid_, SIGINT);
    ExeRun r = finish();
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    EXPECT_NE(r.out.find("version: stopped before the answer came"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace e2e
