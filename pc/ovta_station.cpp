// ovta-station: one station's plan on every phone of a fixture at once.
// `ovta-station --help` shows the options; pc/station/plan.hpp the plan.
//
// Threads: the main thread reads the plan and the command line, makes the
// run's records folder, starts one thread per slot and then only waits: for
// a slot to report (the status board wakes it), for Ctrl-C, and on a
// terminal for the next second of the time column. A slot runs the plan once
// (pc/station/slot_runner.hpp), or with --loop phone after phone on its own
// cycle (pc/station/slot_cycle.hpp); either way each phone's record is
// written as soon as it is done. Ctrl-C (SIGINT or SIGTERM on Linux, the
// console's Ctrl-C or close on Windows) raises the stop, which every slot's
// waits watch beside its line, so each slot ends at once and records what it
// did. When all slots have ended the main thread joins them
// and writes the JUnit file (in a loop also every ten seconds on the way).
//
// Exit status: 0 every phone passed, 1 any failed, was stopped or has an
// unknown verdict, 2 the plan or the command line is wrong.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "pc/os/console.hpp"
#include "pc/os/line.hpp"
#include "pc/results/commands.hpp"
#include "pc/station/board_list.hpp"
#include "pc/station/live_view.hpp"
#include "pc/station/plan.hpp"
#include "pc/station/record_keeper.hpp"
#include "pc/station/run_folder.hpp"
#include "pc/station/slot_cycle.hpp"
#include "pc/station/slot_runner.hpp"
#include "pc/station/station_options.hpp"
#include "pc/station/utc_text.hpp"
#ifdef OVTA_WITH_RESULTS
#include "pc/station/results_feed.hpp"
#endif

namespace {

constexpr int kExitPassed = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// How often a loop's JUnit file is rewritten while phones come and go.
constexpr auto kJunitEvery = std::chrono::seconds(10);

int usage_error(const std::string& why) {
    fprintf(stderr, "ovta-station: %s; ovta-station --help shows the usage\n", why.c_str());
    return kExitUsage;
}

bool all_ended(const station::StatusBoard& board, bool loop) {
    for (const station::SlotStatus& s : board.rows()) {
        if (!(loop ? s.closed : s.finished)) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (const int status = results::station_subcommand(argc, argv); status >= 0) return status;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            fputs(station::kUsage, stdout);
            return kExitPassed;
        }
    }
    station::Options opt;
    if (auto why = station::read_options(argc, argv, &opt)) return usage_error(*why);

    std::string error;
    std::optional<station::Plan> plan = station::parse_plan(opt.plan, &error);
    if (!plan) {
        fprintf(stderr, "ovta-station: plan refused: %s\n", error.c_str());
        return kExitUsage;
    }
    const size_t slots = opt.devices.size();
    station::BoardList boards(slots);
    if (auto why = station::gather_boards(opt, *plan, &boards)) return usage_error(*why);
    std::optional<std::string> folder = station::make_run_folder(
        opt.records, station::run_folder_name(station::utc_folder_stamp(), plan->name), &error);
    if (!folder) return usage_error(error);
    if (opt.junit.empty()) opt.junit = *folder + "/junit.xml";

    // Lives to the end of main, past every slot's thread.
    static pcos::Stop stop;
    if (!stop.valid() || !pcos::raise_on_interrupt(stop)) {
        fprintf(stderr, "ovta-station: cannot set up the stop for Ctrl-C\n");
        return kExitFailed;
    }
#ifdef OVTA_WITH_RESULTS
    // Every run, phone and step into the results database as it goes.
    // --database off: none (the benchmark's loop without it).
    std::unique_ptr<station::ResultsFeed> feed;
    if (opt.database != "off") {
        feed = station::ResultsFeed::open(opt.database, opt.records, *plan, &error);
        if (!feed) return usage_error("results database: " + error);
    }
    station::SlotWatcher* const watcher = feed.get();
#else
    if (!opt.database.empty() && opt.database != "off") return usage_error("--database: this ovta-station was built without the results database");
    station::SlotWatcher* const watcher = nullptr;
#endif

    const size_t steps = plan->steps.size() + (plan->verdict ? 1 : 0);
    const auto start = std::chrono::steady_clock::now();
    std::vector<station::SlotStatus> rows(slots);
    std::vector<station::SlotSetup> setups(slots);
    const std::string today = station::utc_date();
    for (size_t i = 0; i < slots; ++i) {
        rows[i].device = opt.devices[i];
        rows[i].steps = steps;
        rows[i].started = start;
        setups[i] = {i + 1, opt.devices[i], "", today, &stop};
        setups[i].watcher = watcher;
        // A loop takes a --boards file's numbers one per phone; a slot's
        // --board or the plan's number is the slot's, for every phone on it.
        if (!opt.loop || opt.board_file.empty()) {
            rows[i].board = boards.take(i + 1).value_or("");
            setups[i].board = rows[i].board;
            setups[i].read_board = rows[i].board.empty() && !plan->sets_board;
        }
    }
    station::StatusBoard board(std::move(rows));
    station::LiveView view(stdout, !opt.plain && pcos::open_terminal(stdout), opt.loop);
    station::RecordKeeper keeper(*plan, *folder, opt.junit);

    std::vector<std::thread> threads;
    for (size_t i = 0; i < slots; ++i) {
        if (opt.loop) {
            station::CycleSetup cycle{setups[i], opt.board_file.empty() ? nullptr : &boards, plan->uses_board};
            threads.emplace_back([&, cycle] { station::run_cycle(*plan, cycle, board, keeper); });
        } else {
            threads.emplace_back([&, i] { keeper.keep(station::run_slot(*plan, setups[i], board)); });
        }
    }

    // On a terminal the table is redrawn at most ten times a second however
    // fast the slots report (an RF transfer reports every slice), and once a
    // second for the time column; otherwise each finished step is a line.
    using std::chrono::milliseconds;
    bool stopped = false;
    bool dirty = false;
    auto drawn_at = std::chrono::steady_clock::now();
    auto junit_at = drawn_at;
    view.show(board);
    while (!all_ended(board, opt.loop)) {
        // Ctrl-C is looked at a few times a second; the slots see it at once.
        long long timeout = 250;
        if (view.terminal()) {
            const auto since = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - drawn_at);
            timeout = std::clamp<long long>((dirty ? 100 : 1000) - since.count(), 0, timeout);
        }
        // While a redraw is due anyway, the wake-up need not be watched.
        if (dirty && view.terminal()) {
            std::this_thread::sleep_for(milliseconds(timeout));
        } else if (board.wait_for_change(milliseconds(timeout))) {
            dirty = true;
        }
        if (!stopped && stop.raised()) {
            fprintf(stderr, "ovta-station: interrupted, stopping every slot\n");
            view.interrupted();
            stopped = true;
        }
        const auto now = std::chrono::steady_clock::now();
        if (!view.terminal() || now - drawn_at >= milliseconds(dirty ? 100 : 1000)) {
            if (view.terminal() || dirty) view.show(board);
            drawn_at = now;
            dirty = false;
        }
        if (opt.loop && now - junit_at >= kJunitEvery) {
            if (!keeper.write_junit(&error)) fprintf(stderr, "ovta-station: %s\n", error.c_str());
            junit_at = now;
        }
    }
    for (std::thread& t : threads) t.join();
    view.show(board);

    bool written = keeper.write_junit(&error);
    if (!written) fprintf(stderr, "ovta-station: %s\n", error.c_str());
    for (const std::string& e : keeper.take_errors()) {
        fprintf(stderr, "ovta-station: %s\n", e.c_str());
        written = false;
    }
    const station::RecordKeeper::Counts counts = keeper.counts();
    printf("%zu of %zu phones passed%s; records in %s/\n", counts.passed, counts.phones, stopped ? " (stopped)" : "",
           folder->c_str());
    for (const std::string& line : keeper.not_passed()) printf("%s\n", line.c_str());
#ifdef OVTA_WITH_RESULTS
    if (feed && !feed->url().empty()) {
        const int64_t waiting = feed->close();
        if (waiting == 0) printf("every row reached %s\n", feed->url().c_str());
        if (waiting != 0) printf("%lld rows wait in %s for the line's server: ovta-station sync sends them\n",
                                 static_cast<long long>(waiting), feed->file().c_str());
    }
#endif
    const bool all_passed = counts.phones > 0 && counts.passed == counts.phones;
    return all_passed && written ? kExitPassed : kExitFailed;
}
