#include "sandbox_fixture.hpp"

#include <csignal>
#include <fcntl.h>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <pty.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include "sandbox_io.hpp"
#include "sandbox_netns.hpp"

namespace sandbox {
namespace {

using namespace std::chrono_literals;

const Bytes kHandshakeOffer = {0xAA, 0xBB, 0xCC, 0xDD, 0x7F};
constexpr uint8_t kFrameHead[4] = {0xAA, 0xBB, 0xCC, 0xDD};
constexpr size_t kCmdOffset = 12;

void write_text(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "w");
    if (f == nullptr) return;
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
}

}  // namespace

std::unique_ptr<FixturePhone> FixturePhone::start(const FixtureSetup& setup, std::string* why) {
    std::unique_ptr<FixturePhone> f(new FixturePhone());
    int master = -1;
    int slave = -1;
    termios raw{};
    cfmakeraw(&raw);
    if (openpty(&master, &slave, nullptr, &raw, nullptr) != 0) {
        *why = std::string("openpty: ") + strerror(errno);
        return nullptr;
    }
    f->relay_master_.reset(master);
    f->relay_slave_.reset(slave);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    fcntl(slave, F_SETFD, FD_CLOEXEC);
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    char name[256] = {};
    if (ttyname_r(slave, name, sizeof(name)) != 0) {
        *why = std::string("ttyname_r: ") + strerror(errno);
        return nullptr;
    }
    f->device_ = name;
    f->relay_stop_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (setup.pull_on_command) f->pull_on_cmd_ = static_cast<int64_t>(*setup.pull_on_command);
    f->pulled_event_ = setup.pulled_event;
    FixturePhone* p = f.get();
    f->keeper_ = std::thread([p, setup] { p->keep(setup); });
    std::unique_lock<std::mutex> lock(f->mu_);
    f->cv_.wait(lock, [&] { return f->up_done_; });
    if (!f->up_ok_) {
        *why = f->up_why_;
        lock.unlock();
        return nullptr;  // the destructor ends the keeper
    }
    lock.unlock();
    f->relay_ = std::thread([p] { p->relay(); });
    return f;
}

void FixturePhone::hang_up() {
    if (relay_.joinable()) {
        const uint64_t one = 1;
        (void)!write(relay_stop_.get(), &one, sizeof(one));
        relay_.join();
    }
    relay_master_.reset();
    relay_slave_.reset();
}

FixturePhone::~FixturePhone() {
    hang_up();
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_ = true;
    }
    cv_.notify_all();
    if (keeper_.joinable()) keeper_.join();
}

bool FixturePhone::bring_up(const FixtureSetup& setup, std::string* why) {
    if (!enter_private_network(why)) return false;
    phone_ = Phone::create(setup.phone, why);
    if (!phone_) return false;
    for (const auto& [path, content] : setup.files) {
        if (!phone_->write_file(path, content)) {
            *why = "cannot write " + path;
            return false;
        }
    }
    wfmgr_ = Daemon::start(*phone_, setup.wfmgr_sim, setup.wfmgr_args, why);
    if (!wfmgr_) return false;
    if (!wfmgr_->wait_for_log("listening", 30s)) {
        *why = "wfmgr-sim did not listen";
        return false;
    }
    agent_ = Daemon::start(*phone_, setup.agent, {"-m", "1"}, why, setup.agent_options);
    if (!agent_) return false;
    if (!agent_->wait_for_log("handle_start success", 30s)) {
        *why = "the agent did not start";
        return false;
    }
    if (setup.station_handshake) return true;
    // The PC's part of the handshake, so that the agent serves from now on
    // and the station sees frames only.
    const int line = phone_->pc_master();
    if (read_exact(line, kHandshakeOffer.size(), 30s) != kHandshakeOffer) {
        *why = "no handshake offer on the PC line";
        return false;
    }
    const Bytes answer = {0x00};
    if (!write_all(line, answer, 5s) || !agent_->wait_for_log("): handshake success.", 30s)) {
        *why = "the handshake did not succeed";
        return false;
    }
    // An offer sent just before the success may still be on the line.
    while (!quiet_for(line, 0ms)) {
        if (read_exact(line, kHandshakeOffer.size(), 5s) != kHandshakeOffer) {
            *why = "stray bytes on the PC line after the handshake";
            return false;
        }
    }
    return true;
}

void FixturePhone::keep(const FixtureSetup& setup) {
    std::string why;
    const bool ok = bring_up(setup, &why);
    std::unique_lock<std::mutex> lock(mu_);
    up_ok_ = ok;
    up_why_ = why;
    up_done_ = true;
    cv_.notify_all();
    cv_.wait(lock, [&] { return stop_; });
    lock.unlock();
    if (agent_) {
        if (agent_->running()) agent_->signal(SIGTERM);
        agent_exit_ = agent_->wait_exit(15s);
    }
    if (wfmgr_) {
        if (wfmgr_->running()) wfmgr_->signal(SIGTERM);
        wfmgr_->wait_exit(15s);
    }
    if (setup.keep_logs && phone_) {
        for (const auto& [name, daemon] : {std::pair{"/agent.log", agent_.get()}, std::pair{"/wfmgr.log", wfmgr_.get()}}) {
            if (daemon == nullptr) continue;
            std::string text;
            for (const std::string& line : daemon->log_lines()) text += line + "\n";
            write_text(phone_->root() + name, text);
        }
    }
    // The programs die with this thread; they are gone before it ends.
    agent_.reset();
    wfmgr_.reset();
}

void FixturePhone::look_for_commands(const uint8_t* data, size_t n, bool* kill, bool* pull) {
    const int64_t kill_cmd = kill_on_cmd_.load();
    if (kill_cmd < 0 && pull_on_cmd_ < 0) return;
    pc_tail_.insert(pc_tail_.end(), data, data + n);
    for (size_t at = 0; at + kCmdOffset + 4 <= pc_tail_.size(); ++at) {
        if (memcmp(pc_tail_.data() + at, kFrameHead, sizeof(kFrameHead)) != 0) continue;
        const uint8_t* c = pc_tail_.data() + at + kCmdOffset;
        const int64_t got = c[0] | c[1] << 8 | c[2] << 16 | static_cast<int64_t>(c[3]) << 24;
        *kill = *kill || got == kill_cmd;
        *pull = *pull || got == pull_on_cmd_;
    }
    // A head cut by this read is found with the next one.
    if (pc_tail_.size() > kCmdOffset + 3) pc_tail_.erase(pc_tail_.begin(), pc_tail_.end() - (kCmdOffset + 3));
}

void FixturePhone::relay() {
    const int phone_line = phone_->pc_master();
    const int station_line = relay_master_.get();
    uint8_t buf[8192];
    bool killed = false;
    for (;;) {
        pollfd p[3] = {{phone_line, POLLIN, 0}, {station_line, POLLIN, 0}, {relay_stop_.get(), POLLIN, 0}};
        if (poll(p, 3, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (p[2].revents & POLLIN) return;
        if (p[0].revents & POLLIN) {
            const ssize_t n = read(phone_line, buf, sizeof(buf));
            if (n > 0) write_all(station_line, {buf, static_cast<size_t>(n)}, 1000ms);
        }
        if (p[1].revents & POLLIN) {
            const ssize_t n = read(station_line, buf, sizeof(buf));
            if (n <= 0) continue;
            bool kill = false;
            bool pull = false;
            look_for_commands(buf, static_cast<size_t>(n), &kill, &pull);
            if (pull) {
                // The cable goes: nothing more reaches the phone, and the
                // station's end hangs up now.
                relay_master_.reset();
                pulled_.store(true);
                const uint64_t one = 1;
                if (pulled_event_ >= 0) (void)!write(pulled_event_, &one, sizeof(one));
                return;
            }
            if (!killed && kill) {
                agent_->signal(SIGKILL);
                killed = true;
            }
            if (!killed) write_all(phone_line, {buf, static_cast<size_t>(n)}, 1000ms);
        }
    }
}

}  // namespace sandbox
