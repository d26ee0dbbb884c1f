// The report's figures over a fixture worked out by hand (known_fixture.hpp),
// from the local file and from a line's server alike, and the Fisher test
// against values computed exactly elsewhere (Python's fractions).
#include <gtest/gtest.h>

#include "known_fixture.hpp"
#include "pc/results/commands.hpp"
#include "pc/results/fisher_test.hpp"
#include "pc/results/outbox_sender.hpp"
#include "pc/results/report.hpp"
#include "pg_scratch_server.hpp"
#include "scratch_dir.hpp"

using namespace results;

namespace {

Report report_of(const std::string& source, const ReportFilter& filter = {}) {
    ReportData data;
    std::string error;
    EXPECT_TRUE(load_report_data(source, filter, &data, &error)) << error;
    Report r = compute_report(data);
    r.filter = filter;
    return r;
}

void expect_hand_worked_figures(const Report& r) {
    EXPECT_EQ(r.yield.tests, 40u);
    EXPECT_EQ(r.yield.unfinished, 1u);
    EXPECT_EQ(r.yield.unknown, 1u);
    EXPECT_EQ(r.yield.boards, 37u);
    EXPECT_EQ(r.yield.first_pass, 30u);  // 37 less 5 + 1 failed and 1 unknown
    EXPECT_EQ(r.yield.final_pass, 33u);  // and the three retests
    EXPECT_DOUBLE_EQ(r.yield.first_pass_yield, 30.0 / 37);
    EXPECT_DOUBLE_EQ(r.yield.final_yield, 33.0 / 37);

    ASSERT_EQ(r.pareto.size(), 2u);
    EXPECT_EQ(r.pareto[0].step, "card");
    EXPECT_EQ(r.pareto[0].failures, 5u);
    EXPECT_DOUBLE_EQ(r.pareto[0].cumulative, 5.0 / 6);
    ASSERT_EQ(r.pareto[0].reasons.size(), 2u);
    EXPECT_EQ(r.pareto[0].reasons[0], std::make_pair(std::string("nothing came within 3000 ms"), size_t{4}));
    EXPECT_EQ(r.pareto[0].reasons[1], std::make_pair(std::string("card: 512 below 1000"), size_t{1}));
    EXPECT_EQ(r.pareto[1].step, "board number read back");
    EXPECT_DOUBLE_EQ(r.pareto[1].cumulative, 1.0);

    ASSERT_EQ(r.slots.size(), 4u);
    // Slot 1: 5 of 10 failed against 2 of 30; p = 0.006224..., times 4 slots.
    EXPECT_EQ(r.slots[0].slot, 1);
    EXPECT_NEAR(r.slots[0].p_value, 0.006224133159117679, 1e-12);
    EXPECT_NEAR(r.slots[0].p_adjusted, 0.024896532636470715, 1e-12);
    EXPECT_TRUE(r.slots[0].flagged);
    EXPECT_DOUBLE_EQ(r.slots[0].others_yield, 28.0 / 30);
    // Slot 4: its unknown counts as not passed, and is no sign of a bad slot.
    EXPECT_NEAR(r.slots[3].p_value, 0.8908041168103088, 1e-12);
    EXPECT_DOUBLE_EQ(r.slots[3].p_adjusted, 1.0);
    EXPECT_FALSE(r.slots[1].flagged || r.slots[2].flagged || r.slots[3].flagged);

    // Durations of steps that ran: enter-amt took 10..50 ms, 41 times.
    const DurationRow& enter = r.durations[0];
    EXPECT_EQ(enter.step, "enter-amt");
    EXPECT_EQ(enter.count, 41u);
    EXPECT_DOUBLE_EQ(enter.median_ms, 30);
    EXPECT_DOUBLE_EQ(enter.p95_ms, 48);  // rank ceil(0.95 * 41) = 39
    EXPECT_DOUBLE_EQ(enter.max_ms, 50);
    for (const DurationRow& d : r.durations) {
        if (d.step == "card") {
            EXPECT_EQ(d.count, 39u);  // slot 2's misread phone never got there
        }
    }

    ASSERT_EQ(r.spread.size(), 1u);
    const SpreadRow& card = r.spread[0];
    EXPECT_EQ(card.step, "card");
    EXPECT_EQ(card.count, 35u);
    EXPECT_EQ(card.below, 1u);
    EXPECT_EQ(card.above, 0u);
    EXPECT_DOUBLE_EQ(card.min, 512);
    EXPECT_DOUBLE_EQ(card.max, 30900);
    EXPECT_EQ(card.low, 1000);
    EXPECT_EQ(card.high, 64000);
    size_t binned = 0;
    for (size_t c : card.histogram) binned += c;
    EXPECT_EQ(binned, 35u);
    EXPECT_EQ(card.histogram.front(), 1u);  // the 512, alone at the bottom

    ASSERT_EQ(r.retests.size(), 3u);
    EXPECT_EQ(r.retests[0].board, "B-1-0");
    EXPECT_EQ(r.retests[0].tests, 2u);
    EXPECT_EQ(r.retests[0].first_failed_step, "card");
    EXPECT_EQ(r.retests[0].first_reason, "nothing came within 3000 ms");
    EXPECT_EQ(r.retests[0].passed_at, "2026-11-26T06:38:00.000Z");
}

}  // namespace

TEST(ResultsFisher, OneSidedPValuesMatchExactValues) {
    EXPECT_NEAR(fisher_one_sided_worse(5, 5, 1, 29), 0.0020242914979757085, 1e-14);
    EXPECT_NEAR(fisher_one_sided_worse(3, 47, 9, 141), 0.6153398281042596, 1e-12);
    EXPECT_NEAR(fisher_one_sided_worse(30, 170, 60, 540), 0.03777641846159516, 1e-11);
    EXPECT_NEAR(fisher_one_sided_worse(12, 88, 24, 276), 0.15637086610985565, 1e-11);
    // A slot with no failure is never worse; no failure anywhere says nothing.
    EXPECT_DOUBLE_EQ(fisher_one_sided_worse(0, 10, 5, 5), 1.0);
    EXPECT_DOUBLE_EQ(fisher_one_sided_worse(0, 10, 0, 30), 1.0);
    // Tens of thousands of phones: no overflow, and a clear case stays clear.
    const double p = fisher_one_sided_worse(900, 9100, 900, 29100);
    EXPECT_GT(p, 0);
    EXPECT_LT(p, 1e-30);
}

TEST(ResultsReport, HandWorkedFixtureFromTheLocalFileAndTheServerAlike) {
    results_test::ScratchDir dir;
    const std::string path = dir.file("results.db");
    std::string error;
    std::unique_ptr<Store> store = Store::open(path, &error);
    ASSERT_TRUE(store) << error;
    ASSERT_TRUE(results_test::write_known_fixture(*store, &error)) << error;
    const Report local = report_of(path);
    expect_hand_worked_figures(local);

    results_test::PgScratchServer server;
    ASSERT_TRUE(server.create(&error)) << error;
    OutboxSender sender(*store, server.url());
    size_t sent = 0;
    ASSERT_TRUE(sender.send_pending(&sent, &error)) << error;
    const Report remote = report_of(server.url());
    expect_hand_worked_figures(remote);
    EXPECT_EQ(report_json(remote), report_json(local));
    // The filters, on the server as in the file.
    ReportFilter slot3;
    slot3.fixture_slot = 3;
    EXPECT_EQ(report_of(server.url(), slot3).yield.tests, 10u);
    EXPECT_EQ(report_json(report_of(server.url(), slot3)), report_json(report_of(path, slot3)));
}

TEST(ResultsReport, FiltersPickPhonesByStartStationPlanAndSlot) {
    results_test::ScratchDir dir;
    const std::string path = dir.file("results.db");
    std::string error;
    std::unique_ptr<Store> store = Store::open(path, &error);
    ASSERT_TRUE(store) << error;
    ASSERT_TRUE(results_test::write_known_fixture(*store, &error)) << error;
    ReportFilter f;
    // Tests start at minute k * 5 + slot: from 06:10 to before 06:20, k = 2 and 3.
    f.since = "2026-11-26T06:10";
    f.until = "2026-11-26T06:20";
    EXPECT_EQ(report_of(path, f).yield.tests, 8u);
    f = {};
    f.station = 12;
    f.plan = "fixture.toml";  // the file name alone
    EXPECT_EQ(report_of(path, f).yield.tests, 40u);
    f.station = 13;
    EXPECT_EQ(report_of(path, f).yield.tests, 0u);
    f = {};
    f.plan = "ture.toml";  // a name's tail is not a name
    EXPECT_EQ(report_of(path, f).yield.tests, 0u);
    f = {};
    f.fixture_slot = 1;
    const Report one = report_of(path, f);
    EXPECT_EQ(one.yield.tests, 10u);
    EXPECT_FALSE(one.slots[0].flagged);  // nothing to compare with
    EXPECT_EQ(one.pareto[0].failures, 5u);
}

TEST(ResultsReport, CommandWritesTheTableJsonAndPageAndRefusesBadInput) {
    results_test::ScratchDir dir;
    const std::string path = dir.file("results.db");
    std::string error;
    {
        std::unique_ptr<Store> store = Store::open(path, &error);
        ASSERT_TRUE(store) << error;
        ASSERT_TRUE(results_test::write_known_fixture(*store, &error)) << error;
    }
    auto report = [](std::vector<std::string> args) {
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        return report_command(static_cast<int>(argv.size()), argv.data());
    };
    testing::internal::CaptureStdout();
    EXPECT_EQ(report({"report", "--database", path, "--html", dir.file("day.html")}), 0);
    const std::string table = testing::internal::GetCapturedStdout();
    EXPECT_NE(table.find("  card                    5      83.3 %  83.3 %      nothing came within 3000 ms (4); "
                         "card: 512 below 1000 (1)"),
              std::string::npos)
        << table;
    EXPECT_NE(table.find("WORSE THAN ITS FIXTURE"), std::string::npos);
    testing::internal::CaptureStdout();
    EXPECT_EQ(report({"report", "--database", path, "--json"}), 0);
    const nlohmann::json j = nlohmann::json::parse(testing::internal::GetCapturedStdout());
    EXPECT_EQ(j["yield"]["boards"], 37);
    EXPECT_EQ(j["slots"]["rows"][0]["flagged"], true);
    FILE* page = fopen(dir.file("day.html").c_str(), "r");
    ASSERT_NE(page, nullptr);
    fclose(page);

    EXPECT_EQ(report({"report", "--database", path, "--station", "twelve"}), 2);
    EXPECT_EQ(report({"report", "--database", path, "--since", "2026-11-27", "--until", "2026-11-26"}), 2);
    EXPECT_EQ(report({"report", "--database", path, "--bogus"}), 2);
    EXPECT_EQ(report({"report", "--database", dir.file("none.db")}), 1);
    EXPECT_EQ(report({"report", "--database", "postgresql:///x?host=" + dir.path()}), 1);
}

TEST(ResultsReport, AFileWithNoPhonesGivesZerosInEveryForm) {
    results_test::ScratchDir dir;
    const std::string path = dir.file("results.db");
    std::string error;
    ASSERT_TRUE(Store::open(path, &error)) << error;
    const Report r = report_of(path);
    EXPECT_EQ(r.yield.boards, 0u);
    EXPECT_EQ(r.yield.first_pass_yield, 0.0);  // not NaN
    EXPECT_TRUE(r.pareto.empty() && r.slots.empty() && r.durations.empty() && r.spread.empty());
    EXPECT_NE(report_text(r).find("Failing steps, most frequent first\n  none\n"), std::string::npos);
    EXPECT_EQ(report_json(r)["yield"]["final_yield"], 0.0);
    const std::string page = report_html(r);
    EXPECT_NE(page.find("<p>No step failed.</p>"), std::string::npos);
    EXPECT_EQ(page.find("nan"), std::string::npos);
}
