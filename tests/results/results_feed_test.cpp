// The station's feed into the results database, without phones: the cases
// the end-to-end runs seldom meet. A phone whose line never opened, one
// stopped by Ctrl-C, a loop's phone numbers, and a file that cannot be
// opened.
#include "pc/station/results_feed.hpp"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "scratch_dir.hpp"

namespace {

using station::ResultsFeed;
using station::SlotRecord;
using station::StepRecord;
using station::StepVerdict;

// One column of the first row of `sql`, as text ("NULL" for NULL).
std::string one(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* st = nullptr;
    std::string out = "no row";
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) == SQLITE_OK && sqlite3_step(st) == SQLITE_ROW) {
        const unsigned char* t = sqlite3_column_text(st, 0);
        out = t ? reinterpret_cast<const char*>(t) : "NULL";
    }
    sqlite3_finalize(st);
    return out;
}

station::Plan two_step_plan(const std::string& path) {
    station::Plan plan;
    plan.path = path;
    plan.station = 7;
    plan.verdict = true;
    plan.steps.resize(2);
    return plan;
}

TEST(ResultsFeed, PhonesThatNeverStartedOrWereStoppedEndWithTheirReason) {
    results_test::ScratchDir dir;
    std::string error;
    auto feed = ResultsFeed::open("", dir.path(), two_step_plan(dir.file("plan.toml")), &error,
                                  results::Store::Sync::kOnCheckpoint);
    ASSERT_NE(feed, nullptr) << error;
    EXPECT_EQ(feed->file(), dir.file("results.db"));

    // Slot 1: the line never opened; its slot comes with its end.
    SlotRecord closed;
    closed.slot = 1;
    closed.device = "/dev/ttyACM0";
    closed.failed_step = "open the line";
    closed.reason = "/dev/ttyACM0: No such file or directory";
    feed->finished(closed);

    // Slot 2, its third phone in a loop: one step ran, then Ctrl-C.
    SlotRecord stopped;
    stopped.slot = 2;
    stopped.phone = 3;
    stopped.board = "SN-9";
    feed->started(stopped);
    StepRecord step;
    step.index = 1;
    step.name = "card";
    step.command = "card";
    step.measured = {{"text", "30436 KiB"}, {"number", 30436}};
    step.limits = {{"min", 1024}};
    step.verdict = StepVerdict::kStopped;
    step.seconds = 0.25;
    stopped.steps.push_back(step);
    feed->step_done(stopped, stopped.steps.back());
    stopped.stopped = true;
    feed->finished(stopped);

    // Slot 3 passes; its verdict step (index 3) measures what the phone holds.
    SlotRecord passed;
    passed.slot = 3;
    feed->started(passed);
    StepRecord verdict;
    verdict.index = 3;
    verdict.name = "verdict";
    verdict.verdict = StepVerdict::kPass;
    passed.stored = {{"written", true}, {"result", 1}};
    passed.steps.push_back(verdict);
    feed->step_done(passed, passed.steps.back());
    passed.passed = true;
    feed->finished(passed);
    EXPECT_EQ(feed->close(), 0);  // no server

    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(dir.file("results.db").c_str(), &db), SQLITE_OK);
    const std::string run = feed->run_id();
    EXPECT_EQ(one(db, "SELECT station FROM runs WHERE id = '" + run + "'"), "7");
    EXPECT_EQ(one(db, "SELECT plan_hash FROM runs"), "");  // the plan file is gone: no hash, still a run
    EXPECT_EQ(one(db, "SELECT verdict || '|' || reason || '|' || (ended IS NOT NULL) FROM slots WHERE id = '" + run +
                          "/1.1'"),
              "fail|/dev/ttyACM0: No such file or directory|1");
    EXPECT_EQ(one(db, "SELECT verdict || '|' || reason || '|' || board FROM slots WHERE id = '" + run + "/2.3'"),
              "unknown|stopped (Ctrl-C)|SN-9");
    EXPECT_EQ(one(db, "SELECT verdict || '|' || duration_ms || '|' || number || '|' || low FROM steps WHERE slot_id = '" +
                          run + "/2.3'"),
              "stopped|250.0|30436.0|1024.0");
    EXPECT_EQ(one(db, "SELECT measured FROM steps WHERE slot_id = '" + run + "/3.1' AND idx = 3"),
              R"({"result":1,"written":true})");
    EXPECT_EQ(one(db, "SELECT verdict FROM slots WHERE id = '" + run + "/3.1'"), "pass");
    EXPECT_EQ(one(db, "SELECT count(*) FROM slots"), "3");
    sqlite3_close(db);
}

TEST(ResultsFeed, AFileThatCannotBeOpenedIsRefusedWithItsReason) {
    results_test::ScratchDir dir;
    std::string error;
    EXPECT_EQ(ResultsFeed::open(dir.file("no/such/folder/results.db"), dir.path(), two_step_plan("plan.toml"), &error),
              nullptr);
    EXPECT_NE(error.find("no/such/folder/results.db"), std::string::npos) << error;
}

}  // namespace
