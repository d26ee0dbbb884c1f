// ovta-station: one station's plan on every phone of a fixture at once.
// `ovta-station --help` shows the options; pc/station/plan.hpp the plan.
//
// Threads: the main thread reads the plan and the command line, starts one
// thread per slot (pc/station/slot_runner.hpp) and then only waits: for a
// slot to report (the status board's eventfd), for SIGINT or SIGTERM (a
// signalfd; both are blocked in every thread), and on a terminal for the
// next second of the time column. A signal writes the stop eventfd, which
// every slot's exchange polls beside its line, so each slot ends at once and
// records what it did. When all slots have ended the main thread joins them
// and writes the records.
//
// Exit status: 0 every phone passed, 1 any failed (or was stopped), 2 the
// plan or the command line is wrong.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <glob.h>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "pc/results/commands.hpp"
#include "pc/station/live_view.hpp"
#include "pc/station/utc_text.hpp"
#include "pc/station/plan.hpp"
#include "pc/station/records.hpp"
#include "pc/station/slot_runner.hpp"

namespace {

constexpr int kExitPassed = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "usage: ovta-station PLAN --device PATH [--device PATH ...] [--records DIR] [--junit FILE] [--plain]\n"
    "\n"
    "Runs the plan (a TOML file) on every device at once, one slot per device in the order given.\n"
    "  --device PATH   a phone's serial line; repeatable, and a glob such as '/dev/ttyACM*' gives one\n"
    "                  slot per match, in name order\n"
    "  --records DIR   where the records go (default records/): DIR/slot-N.json per phone and\n"
    "                  DIR/junit.xml for the run\n"
    "  --junit FILE    the JUnit XML file instead of DIR/junit.xml\n"
    "  --plain         one line per finished step even on a terminal, instead of the live table\n"
    "\n"
    "Ctrl-C stops every slot at once; the records of what ran are still written.\n"
    "Exit status: 0 every phone passed, 1 any phone failed or was stopped, 2 plan or usage error\n";

struct Options {
    std::string plan;
    std::vector<std::string> devices;
    std::string records = "records";
    std::string junit;
    bool plain = false;
};

int usage_error(const std::string& why) {
    fprintf(stderr, "ovta-station: %s; ovta-station --help shows the usage\n", why.c_str());
    return kExitUsage;
}

// The device paths of one --device: the matches of a glob, or the path.
bool add_devices(const std::string& pattern, std::vector<std::string>* out) {
    if (pattern.find_first_of("*?[") == std::string::npos) {
        out->push_back(pattern);
        return true;
    }
    glob_t matches{};
    const int r = glob(pattern.c_str(), 0, nullptr, &matches);
    if (r == 0) {
        for (size_t i = 0; i < matches.gl_pathc; ++i) out->push_back(matches.gl_pathv[i]);
    }
    globfree(&matches);
    return r == 0;
}

bool all_finished(const station::StatusBoard& board) {
    for (const station::SlotStatus& s : board.rows()) {
        if (!s.finished) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (const int status = results::station_subcommand(argc, argv); status >= 0) return status;
    Options opt;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--help" || arg == "-h") {
            fputs(kUsage, stdout);
            return kExitPassed;
        } else if (arg == "--plain") {
            opt.plain = true;
        } else if (arg == "--device" && has_value) {
            if (!add_devices(argv[++i], &opt.devices)) return usage_error(std::string("no device matches ") + argv[i]);
        } else if (arg == "--records" && has_value) {
            opt.records = argv[++i];
        } else if (arg == "--junit" && has_value) {
            opt.junit = argv[++i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage_error("unknown option or missing value: " + arg);
        } else if (opt.plan.empty()) {
            opt.plan = arg;
        } else {
            return usage_error("one plan only: " + arg);
        }
    }
    if (opt.plan.empty()) return usage_error("no plan");
    if (opt.devices.empty()) return usage_error("no --device");
    std::vector<std::string> sorted = opt.devices;
    std::sort(sorted.begin(), sorted.end());
    if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) return usage_error("a device given twice");

    std::string error;
    std::optional<station::Plan> plan = station::parse_plan(opt.plan, &error);
    if (!plan) {
        fprintf(stderr, "ovta-station: plan refused: %s\n", error.c_str());
        return kExitUsage;
    }
    if (!plan->boards.empty() && plan->boards.size() < opt.devices.size()) {
        return usage_error("the plan lists " + std::to_string(plan->boards.size()) + " board numbers for " +
                           std::to_string(opt.devices.size()) + " devices");
    }
    if (mkdir(opt.records.c_str(), 0755) != 0 && errno != EEXIST) {
        return usage_error("cannot make " + opt.records + ": " + strerror(errno));
    }
    if (opt.junit.empty()) opt.junit = opt.records + "/junit.xml";

    // Blocked before any thread starts, so that every thread inherits it and
    // only the signalfd sees the two signals.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    UniqueFd signals(signalfd(-1, &stop_signals, SFD_CLOEXEC | SFD_NONBLOCK));
    UniqueFd stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!signals.valid() || !stop.valid()) {
        fprintf(stderr, "ovta-station: cannot set up the stop: %s\n", strerror(errno));
        return kExitFailed;
    }

    const size_t slots = opt.devices.size();
    const size_t steps = plan->steps.size() + (plan->verdict ? 1 : 0);
    const auto start = std::chrono::steady_clock::now();
    std::vector<station::SlotStatus> rows(slots);
    std::vector<station::SlotSetup> setups(slots);
    const std::string today = station::utc_date();
    for (size_t i = 0; i < slots; ++i) {
        rows[i].device = opt.devices[i];
        rows[i].board = plan->boards.empty() ? "" : plan->boards[i];
        rows[i].steps = steps;
        rows[i].started = start;
        setups[i] = {i + 1, opt.devices[i], rows[i].board, today, stop.get()};
    }
    station::StatusBoard board(std::move(rows));
    station::LiveView view(stdout, !opt.plain && isatty(STDOUT_FILENO) == 1);

    std::vector<station::SlotRecord> records(slots);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < slots; ++i) {
        threads.emplace_back([&, i] { records[i] = station::run_slot(*plan, setups[i], board); });
    }

    // On a terminal the table is redrawn at most ten times a second however
    // fast the slots report (an RF transfer reports every slice), and once a
    // second for the time column; otherwise each finished step is a line.
    using std::chrono::milliseconds;
    bool stopped = false;
    bool dirty = false;
    auto drawn_at = std::chrono::steady_clock::now();
    view.show(board);
    while (!all_finished(board)) {
        int timeout = -1;
        if (view.terminal()) {
            const auto since = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - drawn_at);
            timeout = static_cast<int>(std::max<long long>(0, (dirty ? 100 : 1000) - since.count()));
        }
        // While a redraw is due anyway, the wake-up need not be watched.
        pollfd p[2] = {{dirty && view.terminal() ? -1 : board.wake_fd(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
        const int ready = poll(p, 2, timeout);
        if (ready < 0 && errno != EINTR) break;
        if (p[0].revents & POLLIN) dirty = true;
        if (p[1].revents & POLLIN) {
            signalfd_siginfo info{};
            (void)!read(signals.get(), &info, sizeof(info));
            if (!stopped) {
                fprintf(stderr, "ovta-station: %s, stopping every slot\n", strsignal(static_cast<int>(info.ssi_signo)));
                view.interrupted();
                const uint64_t one = 1;
                (void)!write(stop.get(), &one, sizeof(one));
                stopped = true;
            }
        }
        const auto now = std::chrono::steady_clock::now();
        if (!view.terminal() || now - drawn_at >= milliseconds(dirty ? 100 : 1000)) {
            if (view.terminal() || dirty) view.show(board);
            drawn_at = now;
            dirty = false;
        }
    }
    for (std::thread& t : threads) t.join();
    view.show(board);

    bool all_passed = true;
    bool written = true;
    for (const station::SlotRecord& r : records) {
        all_passed = all_passed && r.passed;
        const std::string path = opt.records + "/" + station::slot_file_name(r);
        if (!station::write_whole(path, station::slot_json(*plan, r).dump(2) + "\n", &error)) {
            fprintf(stderr, "ovta-station: %s\n", error.c_str());
            written = false;
        }
    }
    if (!station::write_whole(opt.junit, station::junit_xml(*plan, records), &error)) {
        fprintf(stderr, "ovta-station: %s\n", error.c_str());
        written = false;
    }
    size_t passed = 0;
    for (const station::SlotRecord& r : records) passed += r.passed ? 1 : 0;
    printf("%zu of %zu phones passed%s; records in %s/\n", passed, slots, stopped ? " (stopped)" : "",
           opt.records.c_str());
    for (const station::SlotRecord& r : records) {
        if (!r.passed) {
            printf("slot %zu %s: %s%s%s\n", r.slot, r.device.c_str(), r.stopped ? "stopped" : "failed",
                   r.failed_step.empty() ? "" : (" at \"" + r.failed_step + "\"").c_str(),
                   r.reason.empty() ? "" : (": " + r.reason).c_str());
        }
    }
    return all_passed && written ? kExitPassed : kExitFailed;
}
