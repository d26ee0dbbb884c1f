// ovta-results-bench: the results database's speeds (scripts/bench.sh --only
// results runs it).
//   SqliteEightSlots     eight slot threads writing one file, every row its
//                        own commit as a station writes them: rows per second,
//                        each commit synced (/1) or synced at checkpoints (/0)
//   SqliteOneSlot        one slot alone: the time a step's row costs the slot
//   PostgresEightStations eight stations' outboxes sent at once to one
//                        server (started for the benchmark): rows per second
//   Report100k           the report over a day of 100 000 phones (1.2 million
//                        steps), loaded, summed and drawn as the table
#include <atomic>
#include <benchmark/benchmark.h>
#include <filesystem>
#include <thread>
#include <vector>

#include "day_maker.hpp"
#include "pc/results/outbox_sender.hpp"
#include "pc/results/report.hpp"
#include "pc/results/row_ids.hpp"
#include "pg_scratch_server.hpp"

using namespace results;

namespace {

constexpr int kSlots = 8;
constexpr int kStepsPerPhone = 12;

std::string scratch_dir() {
    char name[] = "/tmp/ovta-results-bench-XXXXXX";
    if (mkdtemp(name) == nullptr) abort();
    return name;
}

StepRow bench_step(const std::string& slot_id, int64_t index) {
    StepRow s;
    s.slot_id = slot_id;
    s.index = index;
    s.name = "battery voltage";
    s.command = "send";
    s.request = R"({"body":"BATT?","cmd":0,"frame":"AA BB CC DD 11 00 00 00 02 00 00 00 00 00 00 00 42 41 54 54 3F"})";
    s.answer = R"({"outcome":"accepted","text":"3951","value":3951})";
    s.measured = "3951";
    s.limits = R"({"min":3800,"max":4150})";
    s.verdict = "pass";
    s.duration_ms = 12.25;
    return s;
}

// One phone as a slot writes it: its start, twelve steps, its end.
void write_phone(Store& store, const std::string& run_id, int slot, int64_t cycle) {
    std::string error;
    SlotRow s;
    s.id = make_slot_id(run_id, slot, cycle);
    s.run_id = run_id;
    s.fixture_slot = slot;
    s.device = "/dev/ttyACM0";
    s.board = "SN-" + std::to_string(cycle);
    s.started = "2026-11-26T07:00:00.000Z";
    bool ok = store.add_slot(s, &error);
    for (int i = 1; ok && i <= kStepsPerPhone; ++i) ok = store.add_step(bench_step(s.id, i), &error);
    ok = ok && store.finish_slot(s.id, "2026-11-26T07:00:03.000Z", Verdict::kPass, "", &error);
    if (!ok) {
        fprintf(stderr, "write failed: %s\n", error.c_str());
        abort();
    }
}

// Argument 1: 1 every commit synced (the default), 0 synced at checkpoints.
void SqliteEightSlots(benchmark::State& state) {
    const std::string dir = scratch_dir();
    const Store::Sync sync = state.range(1) == 1 ? Store::Sync::kEveryCommit : Store::Sync::kOnCheckpoint;
    const int phones = static_cast<int>(state.range(0));
    int64_t rows = 0;
    for (auto _ : state) {
        std::vector<std::thread> slots;
        for (int k = 0; k < kSlots; ++k) {
            slots.emplace_back([&, k] {
                std::string error;
                std::unique_ptr<Store> store = Store::open(dir + "/results.db", &error, sync);
                const std::string run_id = make_run_id(12, "bench", utc_now_ms());
                RunRow run{run_id, "plan.toml", "", 12, "bench", utc_now_ms()};
                if (!store || !store->add_run(run, &error)) abort();
                for (int p = 0; p < phones; ++p) write_phone(*store, run_id, k + 1, p);
            });
        }
        for (std::thread& t : slots) t.join();
        rows += kSlots * (phones * (kStepsPerPhone + 2) + 1);
    }
    state.SetItemsProcessed(rows);
    state.counters["rows/s"] = benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kIsRate);
    std::filesystem::remove_all(dir);
}
BENCHMARK(SqliteEightSlots)->Args({40, 1})->Args({40, 0})->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void SqliteOneSlot(benchmark::State& state) {
    const std::string dir = scratch_dir();
    std::string error;
    const Store::Sync sync = state.range(0) == 1 ? Store::Sync::kEveryCommit : Store::Sync::kOnCheckpoint;
    std::unique_ptr<Store> store = Store::open(dir + "/results.db", &error, sync);
    RunRow run{"R", "plan.toml", "", 12, "bench", utc_now_ms()};
    if (!store || !store->add_run(run, &error)) abort();
    SlotRow s;
    s.id = "R/1.1";
    s.run_id = "R";
    s.started = "2026-11-26T07:00:00.000Z";
    if (!store->add_slot(s, &error)) abort();
    int64_t index = 0;
    for (auto _ : state) {
        if (!store->add_step(bench_step(s.id, ++index), &error)) abort();
    }
    state.SetItemsProcessed(index);
    std::filesystem::remove_all(dir);
}
BENCHMARK(SqliteOneSlot)->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond)->UseRealTime()->MinTime(2.0);

void PostgresEightStations(benchmark::State& state) {
    results_test::PgScratchServer server;
    std::string error;
    if (!server.create(&error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    const std::string dir = scratch_dir();
    const int phones = static_cast<int>(state.range(0));
    int64_t rows = 0;
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<std::unique_ptr<Store>> stores;
        for (int k = 0; k < kSlots; ++k) {
            stores.push_back(Store::open(dir + "/station" + std::to_string(round) + "-" + std::to_string(k) + ".db", &error));
            if (!stores.back()) abort();
            const std::string run_id = make_run_id(k, "bench", utc_now_ms());
            RunRow run{run_id, "plan.toml", "", k, "bench", utc_now_ms()};
            if (!stores.back()->in_one_transaction([&] {
                    if (!stores.back()->add_run(run, &error)) return false;
                    for (int p = 0; p < phones; ++p) write_phone(*stores.back(), run_id, 1 + p % kSlots, p);
                    return true;
                }, &error)) {
                abort();
            }
        }
        ++round;
        state.ResumeTiming();
        std::vector<std::thread> senders;
        std::atomic<bool> failed{false};
        for (int k = 0; k < kSlots; ++k) {
            senders.emplace_back([&, k] {
                OutboxSender sender(*stores[static_cast<size_t>(k)], server.url());
                size_t sent = 0;
                std::string why;
                if (!sender.send_pending(&sent, &why)) {
                    fprintf(stderr, "send failed: %s\n", why.c_str());
                    failed = true;
                }
            });
        }
        for (std::thread& t : senders) t.join();
        if (failed) abort();
        rows += kSlots * (phones * (kStepsPerPhone + 2) + 1);
    }
    state.SetItemsProcessed(rows);
    state.counters["rows/s"] = benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kIsRate);
    std::filesystem::remove_all(dir);
}
BENCHMARK(PostgresEightStations)->Arg(250)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// The day is made once per machine and kept beside the build: making it
// takes longer than the report.
std::string day_of_100k() {
    const std::string path = "build-bench/results-day-100k.db";
    if (std::filesystem::exists(path)) return path;
    std::filesystem::create_directories("build-bench");
    std::string error;
    std::unique_ptr<Store> store = Store::open(path + ".part", &error);
    results_bench::DayShape shape;
    shape.phones = 100000;
    shape.stations = 10;
    if (!store || !results_bench::make_day(*store, shape, &error)) {
        fprintf(stderr, "cannot make the day: %s\n", error.c_str());
        abort();
    }
    store.reset();
    std::filesystem::remove(path + ".part-wal");
    std::filesystem::remove(path + ".part-shm");
    std::filesystem::rename(path + ".part", path);
    return path;
}

void Report100k(benchmark::State& state) {
    const std::string path = day_of_100k();
    size_t phones = 0;
    for (auto _ : state) {
        ReportData data;
        std::string error;
        if (!load_report_data(path, {}, &data, &error)) {
            state.SkipWithError(error.c_str());
            return;
        }
        Report r = compute_report(data);
        benchmark::DoNotOptimize(report_text(r));
        phones = data.slots.size();
    }
    state.counters["phones"] = static_cast<double>(phones);
}
BENCHMARK(Report100k)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
