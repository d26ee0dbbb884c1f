// The local SQLite file: what is committed when, two writers at once, the
// schema's versions and the outbox marks.
#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "pc/results/local_schema.hpp"
#include "pc/results/plan_hash.hpp"
#include "pc/results/row_ids.hpp"
#include "pc/results/store.hpp"
#include "sample_rows.hpp"
#include "scratch_dir.hpp"

using namespace results;
using results_test::sample_run;
using results_test::sample_slot;
using results_test::sample_step;

namespace {

int64_t count_of(const std::string& path, const std::string& sql) {
    sqlite3* raw = nullptr;
    sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    SqliteDb db(raw);
    Statement q;
    std::string error;
    if (!q.prepare(db.get(), sql, &error) || q.step() != SQLITE_ROW) return -1;
    return q.integer(0);
}

// Writes `phones` phones of `steps` steps each, every call its own commit.
void write_phones(Store& store, const std::string& run_id, int phones, int steps) {
    std::string error;
    for (int p = 0; p < phones; ++p) {
        const std::string slot_id = make_slot_id(run_id, 1 + p % 4, p);
        ASSERT_TRUE(store.add_slot(sample_slot(slot_id, run_id, 1 + p % 4), &error)) << error;
        for (int i = 1; i <= steps; ++i) ASSERT_TRUE(store.add_step(sample_step(slot_id, i), &error)) << error;
        ASSERT_TRUE(store.finish_slot(slot_id, "2026-11-26T07:00:02.000Z", Verdict::kPass, "", &error)) << error;
    }
}

}  // namespace

TEST(ResultsStore, EveryFinishedStepSurvivesAWriterKilledMidSlot) {
    results_test::ScratchDir dir;
    const std::string path = dir.file("results.db");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::string error;
        std::unique_ptr<Store> store = Store::open(path, &error);
        if (!store || !store->add_run(sample_run("r1"), &error) || !store->add_slot(sample_slot("s1", "r1"), &error)) {
            _exit(3);
        }
        for (int i = 1; i <= 5; ++i) {
            if (!store->add_step(sample_step("s1", i), &error)) _exit(4);
        }
        raise(SIGKILL);  // no close, no finish: a crash in the middle of the phone
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed before its crash: " << WEXITSTATUS(status);
    EXPECT_EQ(count_of(path, "SELECT count(*) FROM steps WHERE slot_id = 's1'"), 5);
    EXPECT_EQ(count_of(path, "SELECT count(*) FROM slots WHERE id = 's1' AND verdict IS NULL"), 1);
    // The file opens again after the crash and takes the rest of the phone.
    std::string error;
    std::unique_ptr<Store> store = Store::open(path, &error);
    ASSERT_TRUE(store) << error;
    EXPECT_TRUE(store->add_step(sample_step("s1", 6), &error)) << error;
}

TEST(ResultsStore, TwoProcessesAndFourThreadsWritingOneFileLoseNoRow) {
    results_test::ScratchDir dir;
    const std::string path = dir.file("results.db");
    constexpr int kPhones = 40;
    constexpr int kSteps = 6;
    std::vector<pid_t> children;
    for (int c = 0; c < 2; ++c) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            std::string error;
            std::unique_ptr<Store> store = Store::open(path, &error);
            const std::string run_id = "proc" + std::to_string(c);
            if (!store || !store->add_run(sample_run(run_id), &error)) {
                fprintf(stderr, "writer %d: %s\n", c, error.c_str());
                _exit(3);
            }
            write_phones(*store, run_id, kPhones, kSteps);
            _exit(::testing::Test::HasFailure() ? 4 : 0);
        }
        children.push_back(child);
    }
    // And in this process, four slot threads sharing one store.
    std::string error;
    std::unique_ptr<Store> store = Store::open(path, &error);
    ASSERT_TRUE(store) << error;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        const std::string run_id = "thread" + std::to_string(t);
        ASSERT_TRUE(store->add_run(sample_run(run_id), &error)) << error;
        threads.emplace_back([&store, run_id] { write_phones(*store, run_id, kPhones, kSteps); });
    }
    for (std::thread& t : threads) t.join();
    for (pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(count_of(path, "SELECT count(*) FROM slots WHERE verdict = 'pass'"), 6 * kPhones);
    EXPECT_EQ(count_of(path, "SELECT count(*) FROM steps"), 6 * kPhones * kSteps);
    Statement mode;
    ASSERT_TRUE(mode.prepare(store->handle(), "PRAGMA journal_mode", &error));
    ASSERT_EQ(mode.step(), SQLITE_ROW);
    EXPECT_EQ(mode.text(0), "wal");
}

TEST(ResultsSchema, AVersionOneFileOpensAtVersionTwoWithItsRowsInTheOutbox) {
    results_test::ScratchDir dir;
    const std::string path = dir.file("results.db");
    {
        sqlite3* raw = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
        SqliteDb db(raw);
        std::string error;
        ASSERT_TRUE(migrate_local(db.get(), &error, 1)) << error;
        ASSERT_TRUE(exec(db.get(),
                         "INSERT INTO runs VALUES ('r1', 'plan.toml', 'abc', 12, 'pc', '2026-01-01T00:00:00Z');"
                         "INSERT INTO slots VALUES ('s1', 'r1', 3, '/dev/ttyACM2', 'SN-7', '2026-01-01T00:00:01Z',"
                         " '2026-01-01T00:00:09Z', 'fail', 'nothing came within 3000 ms');"
                         "INSERT INTO steps VALUES ('s1', 1, 'card', 'card', '{}', '{}', '30436', '{\"min\":1}',"
                         " 'fail', 'nothing came within 3000 ms', 3001.0, 30436, 1, NULL);",
                         &error))
            << error;
        ASSERT_EQ(local_schema_version(db.get()), 1);
    }
    std::string error;
    std::unique_ptr<Store> store = Store::open(path, &error);
    ASSERT_TRUE(store) << error;
    EXPECT_EQ(local_schema_version(store->handle()), 2);
    EXPECT_EQ(count_of(path, "SELECT count(*) FROM slots WHERE id = 's1' AND fixture_slot = 3 AND board = 'SN-7' AND "
                             "verdict = 'fail' AND reason = 'nothing came within 3000 ms'"),
              1);
    EXPECT_EQ(count_of(path, "SELECT count(*) FROM steps WHERE number = 30436 AND duration_ms = 3001"), 1);
    // Rows from before the outbox are still to be sent to a line's server.
    EXPECT_EQ(store->unsent_count(), 3);
    std::vector<SlotRow> slots;
    ASSERT_TRUE(store->unsent_slots(10, &slots, &error)) << error;
    ASSERT_EQ(slots.size(), 1u);
    EXPECT_EQ(slots[0].ended, "2026-01-01T00:00:09Z");
    EXPECT_EQ(slots[0].verdict, Verdict::kFail);
}

TEST(ResultsSchema, AFileFromANewerVersionIsRefusedAndLeftAlone) {
    results_test::ScratchDir dir;
    const std::string path = dir.file("results.db");
    {
        sqlite3* raw = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
        SqliteDb db(raw);
        std::string error;
        ASSERT_TRUE(exec(db.get(), "CREATE TABLE future (x); INSERT INTO future VALUES (1); PRAGMA user_version = 3",
                         &error));
    }
    std::string error;
    EXPECT_FALSE(Store::open(path, &error));
    EXPECT_NE(error.find("version 3, newer than this program's 2"), std::string::npos) << error;
    EXPECT_EQ(count_of(path, "PRAGMA user_version"), 3);
    EXPECT_EQ(count_of(path, "SELECT count(*) FROM future"), 1);
    EXPECT_EQ(count_of(path, "SELECT count(*) FROM sqlite_master WHERE name = 'runs'"), 0);
    // A folder that is not there is said at once, not waited out as a lock.
    EXPECT_FALSE(Store::open(dir.file("gone/results.db"), &error));
    EXPECT_EQ(error, dir.file("gone/results.db") + ": no folder " + dir.file("gone"));
}

TEST(ResultsStore, ASlotThatFinishesAfterItsStartWasSentIsSentAgain) {
    results_test::ScratchDir dir;
    std::string error;
    std::unique_ptr<Store> store = Store::open(dir.file("results.db"), &error);
    ASSERT_TRUE(store) << error;
    ASSERT_TRUE(store->add_run(sample_run("r1"), &error));
    ASSERT_TRUE(store->add_slot(sample_slot("s1", "r1"), &error));
    ASSERT_TRUE(store->mark_runs_sent({"r1"}, &error));
    std::vector<SlotRow> slots;
    ASSERT_TRUE(store->unsent_slots(10, &slots, &error));
    ASSERT_EQ(slots.size(), 1u);
    EXPECT_TRUE(slots[0].ended.empty());
    EXPECT_FALSE(slots[0].verdict);
    // The phone finishes while the sender still holds the unfinished row:
    // the sender's mark must not cover the finished one.
    ASSERT_TRUE(store->finish_slot("s1", "2026-11-26T07:00:05.000Z", Verdict::kUnknown, "no answer to the verdict",
                                   &error));
    ASSERT_TRUE(store->mark_slots_sent({{"s1", ""}}, &error));
    EXPECT_EQ(store->unsent_count(), 1);
    slots.clear();
    ASSERT_TRUE(store->unsent_slots(10, &slots, &error));
    ASSERT_EQ(slots.size(), 1u);
    EXPECT_EQ(slots[0].verdict, Verdict::kUnknown);
    ASSERT_TRUE(store->mark_slots_sent({{"s1", "2026-11-26T07:00:05.000Z"}}, &error));
    EXPECT_EQ(store->unsent_count(), 0);
    EXPECT_FALSE(store->finish_slot("s2", "2026-11-26T07:00:05.000Z", Verdict::kPass, "", &error));
    EXPECT_EQ(error, "no slot s2");
}

TEST(ResultsStore, NumbersForTheSpreadComeFromTheMeasuredValueAndTheLimits) {
    results_test::ScratchDir dir;
    const std::string path = dir.file("results.db");
    std::string error;
    std::unique_ptr<Store> store = Store::open(path, &error);
    ASSERT_TRUE(store) << error;
    ASSERT_TRUE(store->add_run(sample_run("r1"), &error));
    ASSERT_TRUE(store->add_slot(sample_slot("s1", "r1"), &error));
    StepRow word = sample_step("s1", 1);
    word.measured = R"({"text":"OK 42","number":42})";
    word.limits = R"({"min":40,"max":44.5})";
    StepRow text = sample_step("s1", 2);
    text.measured = R"("SN-0001")";
    text.limits = R"({"equals":"SN-0001"})";
    ASSERT_TRUE(store->add_step(word, &error)) << error;
    ASSERT_TRUE(store->add_step(text, &error)) << error;
    EXPECT_EQ(count_of(path, "SELECT count(*) FROM steps WHERE idx = 1 AND number = 42 AND low = 40 AND high = 44.5"), 1);
    EXPECT_EQ(count_of(path, "SELECT count(*) FROM steps WHERE idx = 2 AND number IS NULL AND low IS NULL"), 1);
    // A step of a slot that was never started is refused, not kept loose.
    EXPECT_FALSE(store->add_step(sample_step("nope", 1), &error));
}

TEST(ResultsIds, RunIdsNameTheirStationAndNeverRepeat) {
    const std::string a = make_run_id(12, "line pc/3", "2026-11-26T07:14:03.125Z");
    const std::string b = make_run_id(12, "line pc/3", "2026-11-26T07:14:03.125Z");
    EXPECT_EQ(a.substr(0, 33), "12-line_pc_3-20261126T071403125Z-");
    EXPECT_EQ(a.size(), 33u + 16u);
    EXPECT_NE(a, b);
    EXPECT_EQ(make_run_id(std::nullopt, "h", "2026-11-26T07:14:03Z").substr(0, 21), "x-h-20261126T071403Z-");
    EXPECT_EQ(make_slot_id("R", 3, 17), "R/3.17");
}

TEST(ResultsIds, PlanHashIsSha256OfTheText) {
    EXPECT_EQ(sha256_hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256_hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    // 56 bytes: the length no longer fits the first block's tail.
    EXPECT_EQ(sha256_hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(sha256_hex(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}
