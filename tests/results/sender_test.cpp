// The outbox against a real PostgreSQL server that the test starts: two
// stations sending at once, the server stopped and started again in the
// middle, and every row on the server exactly once.
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "pc/results/commands.hpp"
#include "pc/results/outbox_sender.hpp"
#include "pc/results/row_ids.hpp"
#include "pc/results/store.hpp"
#include "pg_scratch_server.hpp"
#include "sample_rows.hpp"
#include "scratch_dir.hpp"

using namespace results;
using results_test::sample_run;
using results_test::sample_slot;
using results_test::sample_step;

namespace {

int64_t server_count(const std::string& url, const std::string& sql) {
    std::string error;
    PgConn conn = pg_connect(url, 5, &error);
    PgResult rows;
    if (!conn || !pg_exec(conn.get(), sql, {}, &error, &rows)) {
        ADD_FAILURE() << error;
        return -1;
    }
    return std::stoll(PQgetvalue(rows.get(), 0, 0));
}

// A station: `phones` phones through four slots, each step its own commit,
// every seventh phone failed and the last but one left `unknown`.
void run_station(Store& store, SenderThread& sender, const std::string& run_id, int phones, int steps,
                 std::atomic<int>* done) {
    std::string error;
    ASSERT_TRUE(store.add_run(sample_run(run_id), &error)) << error;
    for (int p = 0; p < phones; ++p) {
        const std::string slot_id = make_slot_id(run_id, 1 + p % 4, p / 4 + 1);
        ASSERT_TRUE(store.add_slot(sample_slot(slot_id, run_id, 1 + p % 4), &error)) << error;
        for (int i = 1; i <= steps; ++i) ASSERT_TRUE(store.add_step(sample_step(slot_id, i), &error)) << error;
        const Verdict v = p % 7 == 3 ? Verdict::kFail : p == phones - 2 ? Verdict::kUnknown : Verdict::kPass;
        ASSERT_TRUE(store.finish_slot(slot_id, "2026-11-26T07:00:09.000Z", v, v == Verdict::kPass ? "" : "why", &error));
        sender.wake();
        done->fetch_add(1);
    }
}

}  // namespace

TEST(ResultsSender, TwoStationsLoseNoRowAndDoubleNoneWhenTheServerStopsMidRun) {
    results_test::PgScratchServer server;
    std::string error;
    ASSERT_TRUE(server.create(&error)) << error;
    results_test::ScratchDir dir;
    constexpr int kPhones = 60;
    constexpr int kSteps = 5;
    std::unique_ptr<Store> a = Store::open(dir.file("a.db"), &error);
    std::unique_ptr<Store> b = Store::open(dir.file("b.db"), &error);
    ASSERT_TRUE(a && b) << error;
    std::atomic<int> done{0};
    {
        SenderThread send_a(*a, server.url(), std::chrono::milliseconds(20), std::chrono::milliseconds(50));
        SenderThread send_b(*b, server.url(), std::chrono::milliseconds(20), std::chrono::milliseconds(50));
        std::thread station_a([&] { run_station(*a, send_a, "A", kPhones, kSteps, &done); });
        std::thread station_b([&] { run_station(*b, send_b, "B", kPhones, kSteps, &done); });
        // Down while the stations are at a third, up again at two thirds.
        while (done.load() < 2 * kPhones / 3) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const int at_stop = done.load();
        ASSERT_TRUE(server.stop(true, &error)) << error;
        while (done.load() < 4 * kPhones / 3) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_LT(at_stop, 4 * kPhones / 3);
        EXPECT_NE(send_a.last_error(), "");  // it noticed
        ASSERT_TRUE(server.start(&error)) << error;
        station_a.join();
        station_b.join();
        EXPECT_TRUE(send_a.stop()) << send_a.last_error();
        EXPECT_TRUE(send_b.stop()) << send_b.last_error();
    }
    EXPECT_EQ(a->unsent_count(), 0);
    EXPECT_EQ(b->unsent_count(), 0);
    const std::string url = server.url();
    EXPECT_EQ(server_count(url, "SELECT count(*) FROM runs"), 2);
    EXPECT_EQ(server_count(url, "SELECT count(*) FROM slots"), 2 * kPhones);
    EXPECT_EQ(server_count(url, "SELECT count(*) FROM steps"), 2 * kPhones * kSteps);
    // Every slot arrived finished, with the verdict the station wrote.
    EXPECT_EQ(server_count(url, "SELECT count(*) FROM slots WHERE ended IS NULL"), 0);
    EXPECT_EQ(server_count(url, "SELECT count(*) FROM slots WHERE verdict = 'fail'"), 2 * 9);
    EXPECT_EQ(server_count(url, "SELECT count(*) FROM slots WHERE verdict = 'unknown'"), 2);
    EXPECT_EQ(server_count(url, "SELECT count(*) FROM steps WHERE number = 30436 AND low = 1000 AND high = 64000"),
              2 * kPhones * kSteps);
}

TEST(ResultsSender, ABatchSentAgainAfterALostMarkIsStoredOnceAndAnEndIsNeverUndone) {
    results_test::PgScratchServer server;
    std::string error;
    ASSERT_TRUE(server.create(&error)) << error;
    results_test::ScratchDir dir;
    const std::string path = dir.file("results.db");
    std::unique_ptr<Store> store = Store::open(path, &error);
    ASSERT_TRUE(store) << error;
    ASSERT_TRUE(store->add_run(sample_run("R"), &error));
    ASSERT_TRUE(store->add_slot(sample_slot("R/1.1", "R"), &error));
    ASSERT_TRUE(store->add_step(sample_step("R/1.1", 1), &error));
    OutboxSender sender(*store, server.url());
    size_t sent = 0;
    ASSERT_TRUE(sender.send_pending(&sent, &error)) << error;
    EXPECT_EQ(sent, 3u);
    EXPECT_EQ(server_count(server.url(), "SELECT count(*) FROM slots WHERE ended IS NULL"), 1);
    ASSERT_TRUE(store->finish_slot("R/1.1", "2026-11-26T07:00:09.000Z", Verdict::kFail, "card: too small", &error));
    ASSERT_TRUE(sender.send_pending(&sent, &error)) << error;
    EXPECT_EQ(sent, 1u);
    // As if the station died between the server's commit and its own mark:
    // the whole file goes out again, the unfinished start of the slot too.
    ASSERT_TRUE(exec(store->handle(), "UPDATE runs SET sent = NULL; UPDATE steps SET sent = NULL", &error));
    ASSERT_TRUE(sender.send_pending(&sent, &error)) << error;
    EXPECT_EQ(sent, 2u);
    PgConn conn = pg_connect(server.url(), 5, &error);
    ASSERT_TRUE(conn) << error;
    ASSERT_TRUE(pg_exec(conn.get(),
                        "INSERT INTO slots (id, run_id, fixture_slot, device, board, started, ended, verdict, reason) "
                        "VALUES ('R/1.1', 'R', 1, 'd', 'b', 's', NULL, NULL, '') ON CONFLICT (id) DO UPDATE SET ended = "
                        "EXCLUDED.ended, verdict = EXCLUDED.verdict, reason = EXCLUDED.reason WHERE slots.ended IS NULL "
                        "AND EXCLUDED.ended IS NOT NULL",
                        {}, &error))
        << error;
    EXPECT_EQ(server_count(server.url(), "SELECT count(*) FROM runs"), 1);
    EXPECT_EQ(server_count(server.url(), "SELECT count(*) FROM steps"), 1);
    EXPECT_EQ(server_count(server.url(),
                           "SELECT count(*) FROM slots WHERE verdict = 'fail' AND reason = 'card: too small' AND ended = "
                           "'2026-11-26T07:00:09.000Z'"),
              1);

    // A server that is not there: the rows wait, with the reason.
    ASSERT_TRUE(store->add_step(sample_step("R/1.1", 2), &error));
    ASSERT_TRUE(server.stop(false, &error)) << error;
    EXPECT_FALSE(sender.send_pending(&sent, &error));
    // The connection it had breaks; the next one cannot be made.
    EXPECT_FALSE(sender.send_pending(&sent, &error));
    EXPECT_NE(error.find(server.dir()), std::string::npos) << error;
    EXPECT_EQ(store->unsent_count(), 1);

    // `ovta-station sync` once the server is back.
    auto sync = [](std::vector<std::string> args) {
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        return sync_command(static_cast<int>(argv.size()), argv.data());
    };
    EXPECT_EQ(sync({"sync", "--database", server.url(), "--file", path}), 1);
    ASSERT_TRUE(server.start(&error)) << error;
    EXPECT_EQ(sync({"sync", "--database", "http://example", "--file", path}), 2);
    EXPECT_EQ(sync({"sync", "--database", server.url(), "--file", dir.file("missing.db")}), 2);
    EXPECT_EQ(sync({"sync", "--database", server.url(), "--file", path}), 0);
    EXPECT_EQ(store->unsent_count(), 0);
    EXPECT_EQ(server_count(server.url(), "SELECT count(*) FROM steps"), 2);
}
