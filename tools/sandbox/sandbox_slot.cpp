#include "sandbox_slot.hpp"

#include <regex>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <regex>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sandbox {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::string utc_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    char text[40];
    const size_t n = strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text + n, sizeof(text) - n, ".%03ldZ", now.tv_nsec / 1000000);
    return text;
}

}  // namespace

std::unique_ptr<PhoneLog> PhoneLog::open(const std::string& path, std::string* why) {
    std::unique_ptr<PhoneLog> log(new PhoneLog());
    log->fd_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!log->fd_.valid()) {
        *why = "cannot open " + path + ": " + strerror(errno);
        return nullptr;
    }
    return log;
}

void PhoneLog::write(const std::string& event) {
    // One write per line: a reader never sees half of one.
    const std::string line = utc_now() + " " + event + "\n";
    std::lock_guard<std::mutex> hold(mu_);
    (void)!::write(fd_.get(), line.data(), line.size());
}

FixtureSlot::FixtureSlot(SlotSetup setup)
    : setup_(std::move(setup)), line_(setup_.dir + "/slot-" + std::to_string(setup_.slot) + "/tty") {
    wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    worker_ = std::thread([this] { work(); });
}

FixtureSlot::~FixtureSlot() {
    {
        std::lock_guard<std::mutex> hold(mu_);
        stop_ = true;
    }
    const uint64_t one = 1;
    (void)!::write(wake_.get(), &one, sizeof(one));
    worker_.join();
}

bool FixtureSlot::wait_first(std::string* why) {
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait(lock, [&] { return first_done_; });
    *why = first_why_;
    return first_why_.empty();
}

void FixtureSlot::swap(const std::string& why) {
    {
        std::lock_guard<std::mutex> hold(mu_);
        asked_ = why;
    }
    const uint64_t one = 1;
    (void)!::write(wake_.get(), &one, sizeof(one));
}

size_t FixtureSlot::phones() const {
    std::lock_guard<std::mutex> hold(mu_);
    return count_;
}

bool FixtureSlot::done() const {
    std::lock_guard<std::mutex> hold(mu_);
    return done_;
}

namespace {

// A station's verdict in the phone's test result store: "\r\nN,1,pass" or
// "\r\nN,0,fail..." (a fresh store's lines hold neither).
bool holds_verdict(Phone& phone) {
    static const std::regex kVerdict("\r\n[0-9]+,[01],(pass|fail)");
    const std::optional<std::string> text = phone.read_file("/amt/test_result.txt");
    return text && std::regex_search(*text, kVerdict);
}

}  // namespace

void FixtureSlot::wait_wake(std::optional<Clock::time_point> deadline) {
    int timeout = -1;
    if (deadline) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
        timeout = static_cast<int>(std::clamp<long long>(left, 0, 1 << 30));
    }
    pollfd p{wake_.get(), POLLIN, 0};
    if (poll(&p, 1, timeout) > 0) {
        uint64_t count = 0;
        (void)!::read(wake_.get(), &count, sizeof(count));
    }
}

void FixtureSlot::take_off(const std::string& why) {
    if (!phone_) return;
    // The path goes and the line hangs up together, as with a cable pulled.
    unlink(line_.c_str());
    phone_->hang_up();
    const std::string root = phone_->phone().root();
    phone_.reset();
    size_t k = 0;
    {
        std::lock_guard<std::mutex> hold(mu_);
        k = count_;
    }
    setup_.log->write("off " + std::to_string(setup_.slot) + " " + std::to_string(k) + " " + root + " " + why);
}

bool FixtureSlot::put_on(std::string* why) {
    size_t k = 0;
    {
        std::lock_guard<std::mutex> hold(mu_);
        k = ++count_;
    }
    const bool odd = std::find(setup_.odd.begin(), setup_.odd.end(), k) != setup_.odd.end();
    FixtureSetup setup = odd ? setup_.odd_phone : setup_.phone;
    const std::string planted = setup_.plant ? setup_.plant(k, &setup) : "";
    setup.phone.root = setup_.dir + "/slot-" + std::to_string(setup_.slot) + "/phone-" + std::to_string(k);
    setup.keep_logs = true;
    setup.pulled_event = wake_.get();
    if (pull_armed_) setup.pull_on_command = setup_.pull_on_command;
    phone_ = FixturePhone::start(setup, why);
    const std::string head = std::to_string(setup_.slot) + " " + std::to_string(k) + " " + setup.phone.root + " ";
    if (!phone_) {
        setup_.log->write("failed " + head + *why);
        return false;
    }
    std::error_code ec;
    fs::create_directories(fs::path(line_).parent_path(), ec);
    if (symlink(phone_->device().c_str(), line_.c_str()) != 0) {
        *why = "symlink " + line_ + ": " + strerror(errno);
        setup_.log->write("failed " + head + *why);
        phone_.reset();
        return false;
    }
    setup_.log->write("on " + head + phone_->device() + (odd ? " odd" : "") + (planted.empty() ? "" : " fault " + planted));
    return true;
}

void FixtureSlot::work() {
    std::string why;
    // A link left by an earlier fixture in the same folder is no phone, and
    // its phones' trees stay: the numbers go on after theirs.
    unlink(line_.c_str());
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(fs::path(line_).parent_path(), ec)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("phone-", 0) != 0) continue;
        const size_t k = strtoul(name.c_str() + 6, nullptr, 10);
        std::lock_guard<std::mutex> hold(mu_);
        count_ = std::max(count_, k);
    }
    const bool up = put_on(&why);
    {
        std::lock_guard<std::mutex> hold(mu_);
        first_done_ = true;
        first_why_ = up ? "" : why;
    }
    cv_.notify_all();
    std::optional<Clock::time_point> next;
    if (setup_.every.count() > 0) next = Clock::now() + setup_.first;
    // When the phone on the slot was first seen holding a verdict; zero: not yet.
    Clock::time_point verdict_seen{};
    for (;;) {
        std::optional<Clock::time_point> wake = next;
        if (setup_.swap_on_verdict && phone_) {
            const auto poll_at = Clock::now() + std::chrono::milliseconds(100);
            wake = wake ? std::min(*wake, poll_at) : poll_at;
        }
        wait_wake(wake);
        std::optional<std::string> asked;
        {
            std::lock_guard<std::mutex> hold(mu_);
            if (stop_) break;
            asked = std::exchange(asked_, std::nullopt);
        }
        if (phone_ && phone_->pulled()) {
            pull_armed_ = false;
            asked = "command " + std::to_string(*setup_.pull_on_command);
        } else if (!asked && next && Clock::now() >= *next) {
            asked = "schedule";
        }
        if (!asked && setup_.swap_on_verdict && phone_) {
            const bool seen = verdict_seen != Clock::time_point{};
            if (!seen && holds_verdict(phone_->phone())) verdict_seen = Clock::now();
            if (seen && Clock::now() - verdict_seen >= std::chrono::milliseconds(500)) asked = "verdict";
        }
        if (!asked) continue;
        verdict_seen = Clock::time_point{};
        take_off(*asked);
        if (setup_.last_phone > 0 && phones() >= setup_.last_phone) {
            // The slot's last phone is done: it stays empty to the end.
            {
                std::lock_guard<std::mutex> hold(mu_);
                done_ = true;
            }
            for (;;) {
                {
                    std::lock_guard<std::mutex> hold(mu_);
                    if (stop_) break;
                }
                wait_wake(std::nullopt);
            }
            break;
        }
        // The gap, cut short by the end of the fixture alone.
        const auto back = Clock::now() + setup_.gap;
        while (Clock::now() < back) {
            {
                std::lock_guard<std::mutex> hold(mu_);
                if (stop_) break;
            }
            wait_wake(back);
        }
        {
            std::lock_guard<std::mutex> hold(mu_);
            if (stop_) break;
            // A swap asked for while the slot was empty is done.
            asked_.reset();
        }
        if (!put_on(&why)) fprintf(stderr, "ovta-fixture: slot %zu: a phone did not come up: %s\n", setup_.slot, why.c_str());
        if (next) next = Clock::now() + setup_.every;
    }
    take_off("end");
}

}  // namespace sandbox
