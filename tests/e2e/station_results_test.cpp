// ovta-station writing the results database as it runs, on phones of
// ovta-fixture: a run's rows are its JSON records (phones, verdicts, boards,
// steps, what each phone holds), and a --loop sending to a line's
// PostgreSQL server (tools/pg_scratch) that is stopped in the middle of the
// shift and started again gets every row there once.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sqlite3.h>
#include <thread>

#include "pc/results/pg_handle.hpp"
#include "pg_scratch_server.hpp"
#include "phone_test.hpp"
#include "station_programs.hpp"

namespace e2e {
namespace {

namespace fs = std::filesystem;
using Rows = std::vector<std::vector<std::string>>;

// Board numbers from the plan; the second phone's RF table is of other
// bytes (ovta-fixture --odd-phone), the third is pulled at its card step.
const char kPlan[] = R"(station = 12
verdict = true
timeout_ms = 10000
boards = ["SN-A", "SN-B", "SN-C"]

[[step]]
command = "board set"
value = "{board}"

[[step]]
command = "board get"
expect = { equals = "{board}" }

[[step]]
command = "rf read"
table = 1
offset = 0
len = 8
expect = { bytes = "00 01 02 03 04 05 06 07" }

[[step]]
command = "card"
expect = { min = 1024 }
)";

// The loop's plan: no board numbers, so each is read from the phone.
const char kLoopPlan[] = R"(station = 12
verdict = true
timeout_ms = 10000

[[step]]
command = "version"
expect = { matches = "^[0-9]" }

[[step]]
command = "card"
expect = { min = 1024 }
)";

// Every row of `sql` as text (NULL as "NULL"), read while the station may
// still write (WAL: a reader never waits).
Rows sqlite_rows(const std::string& file, const std::string& sql) {
    Rows out;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "open " << file << ": " << sqlite3_errmsg(db);
        sqlite3_close(db);
        return out;
    }
    sqlite3_busy_timeout(db, 5000);
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
    } else {
        while (sqlite3_step(st) == SQLITE_ROW) {
            std::vector<std::string> row;
            for (int c = 0; c < sqlite3_column_count(st); ++c) {
                const unsigned char* t = sqlite3_column_text(st, c);
                row.emplace_back(t ? reinterpret_cast<const char*>(t) : "NULL");
            }
            out.push_back(std::move(row));
        }
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return out;
}

int64_t sqlite_count(const std::string& file, const std::string& sql) {
    const Rows r = sqlite_rows(file, sql);
    return r.empty() ? -1 : std::stoll(r[0][0]);
}

Rows server_rows(const std::string& url, const std::string& sql) {
    Rows out;
    std::string error;
    results::PgConn conn = results::pg_connect(url, 5, &error);
    results::PgResult res;
    if (!conn || !results::pg_exec(conn.get(), sql, {}, &error, &res)) {
        ADD_FAILURE() << sql << ": " << error;
        return out;
    }
    for (int r = 0; r < PQntuples(res.get()); ++r) {
        std::vector<std::string> row;
        for (int c = 0; c < PQnfields(res.get()); ++c) {
            row.emplace_back(PQgetisnull(res.get(), r, c) ? "NULL" : PQgetvalue(res.get(), r, c));
        }
        out.push_back(std::move(row));
    }
    return out;
}

class StationResults : public PhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        if (IsSkipped()) return;
        char dir[] = "/tmp/ovta-results-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        std::ofstream(dir_ + "/plan.toml") << kPlan;
        std::ofstream(dir_ + "/loop.toml") << kLoopPlan;
    }
    void TearDown() override {
        PhoneTest::TearDown();
        if (!dir_.empty()) fs::remove_all(dir_);
    }
    std::string dir_;
};

TEST_F(StationResults, ARunsRowsAreItsJsonRecordsStepByStep) {
    const ProgramRun run = run_program(
        {OVTA_BINARY_DIR "/ovta-fixture", "--phones", "3", "--dir", dir_ + "/fixture", "--odd-phone", "2:1",
         "--pull-on", "3:137", "--", OVTA_BINARY_DIR "/ovta-station", dir_ + "/plan.toml", "--plain", "--records",
         dir_ + "/records"},
        dir_ + "/fixture.out");
    EXPECT_EQ(run.status, 1) << run.out;
    const std::string db = dir_ + "/records/results.db";
    ASSERT_TRUE(fs::exists(db)) << run.out;
    const std::vector<std::string> folders = run_folders(dir_ + "/records");
    ASSERT_EQ(folders.size(), 1u) << run.out;

    // One run: the plan's file, its SHA-256 (sha256sum's), station and host.
    const Rows runs = sqlite_rows(db, "SELECT id, plan, plan_hash, station FROM runs");
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0][1], dir_ + "/plan.toml");
    ASSERT_EQ(system(("sha256sum " + dir_ + "/plan.toml > " + dir_ + "/plan.sum").c_str()), 0);
    EXPECT_EQ(runs[0][2], file_text(dir_ + "/plan.sum").substr(0, 64));
    EXPECT_EQ(runs[0][3], "12");
    EXPECT_EQ(runs[0][0].rfind("12-", 0), 0u) << runs[0][0];

    const Rows slots =
        sqlite_rows(db, "SELECT id, fixture_slot, device, board, verdict, reason, ended IS NOT NULL, run_id FROM slots "
                        "ORDER BY fixture_slot");
    ASSERT_EQ(slots.size(), 3u);
    const std::map<size_t, std::string> failed_at = {{2, "rf read"}, {3, "card"}};
    for (size_t slot = 1; slot <= 3; ++slot) {
        SCOPED_TRACE("slot " + std::to_string(slot));
        const nlohmann::json r = read_json(folders[0] + "/slot-" + std::to_string(slot) + ".json");
        const std::vector<std::string>& row = slots[slot - 1];
        EXPECT_EQ(row[0], runs[0][0] + "/" + std::to_string(slot) + ".1");
        EXPECT_EQ(row[7], runs[0][0]);
        EXPECT_EQ(row[1], std::to_string(slot));
        EXPECT_EQ(row[2], r["device"]);
        EXPECT_EQ(row[3], r["board"]);
        EXPECT_EQ(row[3], std::string("SN-") + static_cast<char>('A' + slot - 1));
        EXPECT_EQ(row[4], r["verdict"]);
        EXPECT_EQ(row[5], r["reason"]);
        EXPECT_EQ(row[6], "1");
        if (failed_at.count(slot)) {
            EXPECT_EQ(row[4], "fail");
            EXPECT_EQ(r["failed_step"], failed_at.at(slot));
        } else {
            EXPECT_EQ(row[4], "pass");
        }
        // Every step of the record, the verdict last, in order and whole.
        const Rows steps = sqlite_rows(db, "SELECT idx, name, command, request, answer, measured, limits, verdict, "
                                           "reason, duration_ms FROM steps WHERE slot_id = '" + row[0] +
                                               "' ORDER BY idx");
        ASSERT_EQ(steps.size(), r["steps"].size());
        // The pulled phone gets no verdict step: nothing could be written.
        ASSERT_EQ(steps.size(), slot == 3 ? 4u : 5u);
        for (size_t i = 0; i < steps.size(); ++i) {
            const nlohmann::json& s = r["steps"][i];
            SCOPED_TRACE(s.dump());
            EXPECT_EQ(steps[i][0], std::to_string(i + 1));
            EXPECT_EQ(steps[i][1], s["name"]);
            EXPECT_EQ(steps[i][2], s["command"]);
            EXPECT_EQ(nlohmann::json::parse(steps[i][3]), s["request"]);
            EXPECT_EQ(nlohmann::json::parse(steps[i][4]), s["answer"]);
            EXPECT_EQ(nlohmann::json::parse(steps[i][6]), s["limits"]);
            EXPECT_EQ(steps[i][7], s["verdict"]);
            EXPECT_EQ(steps[i][8], s.value("reason", ""));
            if (i + 1 < steps.size()) {
                EXPECT_EQ(nlohmann::json::parse(steps[i][5]), s["measured"]);
            }
        }
        // The verdict step measures what the phone holds, as the record's
        // "stored" says, and the phone's own store agrees.
        const nlohmann::json held = slot == 3 ? r["stored"] : nlohmann::json::parse(steps.back()[5]);
        EXPECT_EQ(steps.back()[1], slot == 3 ? "card" : "verdict");
        EXPECT_EQ(held, r["stored"]);
        const std::string result = file_text(dir_ + "/fixture/slot-" + std::to_string(slot) + "/phone-1/amt/test_result.txt");
        if (slot == 1) {
            EXPECT_EQ(held["result"], 1);
            EXPECT_NE(result.find("\r\n12,1,pass\r\n"), std::string::npos);
        } else if (slot == 2) {
            EXPECT_EQ(held["result"], 0);
            EXPECT_NE(result.find("\r\n12,0,fail: rf read\r\n"), std::string::npos);
        } else {
            EXPECT_EQ(held["written"], false);
            EXPECT_EQ(result.find("\r\n12,"), std::string::npos);
        }
    }
    // Every row waits for a line's server that this station has none of.
    EXPECT_EQ(sqlite_count(db, "SELECT count(*) FROM steps WHERE sent IS NULL"), 14);
}

// Rows in byte order (the two databases collate text differently).
Rows sorted(Rows rows) {
    std::sort(rows.begin(), rows.end());
    return rows;
}

// Slots finished so far in the station's file.
int64_t finished(const std::string& db) {
    // The file comes a moment before its tables.
    if (!fs::exists(db) || sqlite_count(db, "SELECT count(*) FROM sqlite_master WHERE name = 'slots'") != 1) return 0;
    return sqlite_count(db, "SELECT count(*) FROM slots WHERE ended IS NOT NULL");
}

bool wait_finished(const std::string& db, int64_t n) {
    for (int i = 0; i < 1200 && finished(db) < n; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return finished(db) >= n;
}

TEST_F(StationResults, ALoopWhoseServerStopsMidShiftGetsEveryRowThereOnce) {
    results_test::PgScratchServer server;
    std::string error;
    ASSERT_TRUE(server.create(&error)) << error;  // and started
    const std::string db = dir_ + "/records/results.db";
    const pid_t pid = start_program(
        {OVTA_BINARY_DIR "/ovta-fixture", "--phones", "2", "--dir", dir_ + "/fixture", "--swap-every", "4",
         "--swap-gap", "0.3", "--station-handshake", "--", OVTA_BINARY_DIR "/ovta-station", dir_ + "/loop.toml",
         "--loop", "--plain", "--records", dir_ + "/records", "--database", server.url()},
        dir_ + "/fixture.out");
    EXPECT_TRUE(wait_finished(db, 2));
    ASSERT_TRUE(server.stop(true, &error)) << error;
    // The slots go on without the server; their rows wait in the file.
    const int64_t at_stop = finished(db);
    EXPECT_TRUE(wait_finished(db, at_stop + 3));
    ASSERT_TRUE(server.start(&error)) << error;
    EXPECT_TRUE(wait_finished(db, finished(db) + 2));
    kill(pid, SIGTERM);  // passed on to the station
    const ProgramRun run = finish_program(pid, dir_ + "/fixture.out");
    EXPECT_NE(run.out.find("every row reached " + server.url()), std::string::npos) << run.status << run.out;

    EXPECT_EQ(sqlite_count(db, "SELECT (SELECT count(*) FROM runs WHERE sent IS NULL) + (SELECT count(*) FROM "
                               "slots WHERE sent IS NULL) + (SELECT count(*) FROM steps WHERE sent IS NULL)"),
              0);
    // The same rows in both places: each slot with its end and verdict,
    // each step once (the server's keys would refuse a second copy, so a
    // lost or doubled row shows as a difference here).
    const std::string slots_sql = "SELECT id, board, verdict, reason, ended FROM slots ORDER BY id";
    const std::string steps_sql = "SELECT slot_id, idx, name, verdict, measured FROM steps ORDER BY slot_id, idx";
    const Rows local_slots = sorted(sqlite_rows(db, slots_sql));
    const Rows local_steps = sorted(sqlite_rows(db, steps_sql));
    EXPECT_GE(local_slots.size(), 7u);
    EXPECT_EQ(sorted(server_rows(server.url(), slots_sql)), local_slots);
    EXPECT_EQ(sorted(server_rows(server.url(), steps_sql)), local_steps);
    EXPECT_EQ(server_rows(server.url(), "SELECT count(*) FROM runs"), Rows{{"1"}});
    for (const auto& s : local_slots) EXPECT_NE(s[4], "NULL") << s[0];
}

}  // namespace
}  // namespace e2e
