// ovta-station on a fixture of four phones at once: each phone in a network
// of its own with its own wfmgr-sim and agent, its PC line relayed to a
// pseudo-terminal that the station opens. One plan runs over all four; the
// agent of the third phone is killed when the station sends it the card
// command, so that phone alone fails, at that step. The records are read
// back field by field, and the JUnit file through Python's XML parser.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/wait.h>
#include <thread>

#include "phone_test.hpp"
#include "station_programs.hpp"

namespace e2e {
namespace {

namespace fs = std::filesystem;

// RF table 1 of every phone: 64 bytes 00 01 02 ... 3F.
std::string rf_table() {
    std::string t;
    for (int i = 0; i < 64; ++i) t.push_back(static_cast<char>(i));
    return t;
}

// Every phone's board number comes from the plan's list, one per slot; the
// RF write's bytes are read back, the next 16 bytes against a golden file.
const char kPlan[] = R"(# four phones, one plan
station = 12
verdict = true
timeout_ms = 5000
boards = ["SN-0001", "SN-0002", "SN-0003", "SN-0004"]

[[step]]
command = "enter-amt"
wf_name = "station_fct"

[[step]]
command = "version"
expect = { matches = "^[0-9]" }

[[step]]
name = "board number written"
command = "board set"
value = "{board}"

[[step]]
command = "board get"
expect = { equals = "{board}" }

[[step]]
command = "date set"
value = "{today}"

[[step]]
command = "date get"
expect = { equals = "{today}" }

[[step]]
command = "rf write"
table = 1
offset = 0
data = "A0 A1 A2 A3 A4 A5 A6 A7"

[[step]]
name = "rf read back"
command = "rf read"
table = 1
offset = 0
len = 8
expect = { written = true }

[[step]]
name = "rf golden"
command = "rf read"
table = 1
offset = 16
len = 16
slice = 5
expect = { golden = "golden.bin" }

[[step]]
command = "card"
timeout_ms = 3000
expect = { min = 1024, max = 65536 }

[[step]]
name = "forwarded to wfmgr"
command = "send"
cmd = 100
body = "01 02 03 04"
expect = { bytes = "01 02 03 04" }
)";

class Station : public PhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        if (IsSkipped()) return;
        char dir[] = "/tmp/ovta-station-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        std::ofstream(dir_ + "/plan.toml") << kPlan;
        std::ofstream(dir_ + "/golden.bin", std::ios::binary) << rf_table().substr(16, 16);
    }

    void TearDown() override {
        for (auto& p : phones_) {
            for (sandbox::Daemon* d : {&p->agent(), &p->wfmgr()}) {
                for (const std::string& l : d->log_lines()) {
                    if (l.find("Sanitizer") != std::string::npos || l.find("runtime error:") != std::string::npos) {
                        ADD_FAILURE() << "sanitizer report in a phone's log: " << l;
                    }
                }
            }
        }
        phones_.clear();
        PhoneTest::TearDown();
        if (!dir_.empty()) fs::remove_all(dir_);
    }

    // Four phones, brought up side by side.
    void start_phones(size_t n) {
        sandbox::FixtureSetup setup;
        setup.phone.config = "amt_relate_path = /amt/\n";
        setup.phone.host_dirs = {OVTA_BINARY_DIR};
        setup.files = {{"/amt/rf/rf_table_1.bin", rf_table()}};
        setup.agent = OVTA_BINARY_DIR "/ovta-amt";
        setup.wfmgr_sim = OVTA_BINARY_DIR "/wfmgr-sim";
        setup.wfmgr_args = {"--amt-path", "/amt/", "--rf-path", "/amt/rf/", "--rftab", "1=rf_table_1.bin"};
        std::vector<std::unique_ptr<sandbox::FixturePhone>> phones(n);
        std::vector<std::string> whys(n);
        std::vector<std::thread> starters;
        for (size_t i = 0; i < n; ++i) {
            starters.emplace_back([&, i] { phones[i] = sandbox::FixturePhone::start(setup, &whys[i]); });
        }
        for (std::thread& t : starters) t.join();
        for (size_t i = 0; i < n; ++i) ASSERT_NE(phones[i], nullptr) << "phone " << i + 1 << ": " << whys[i];
        phones_ = std::move(phones);
    }

    std::vector<std::string> station_args(const std::string& plan) {
        std::vector<std::string> args = {OVTA_BINARY_DIR "/ovta-station", dir_ + "/" + plan, "--records",
                                         dir_ + "/records"};
        for (auto& p : phones_) args.insert(args.end(), {"--device", p->device()});
        return args;
    }

    ProgramRun station(const std::string& plan = "plan.toml") {
        return run_program(station_args(plan), dir_ + "/station.out");
    }

    // The folder of the run, the one under records/.
    std::string run_dir() {
        const std::vector<std::string> runs = run_folders(dir_ + "/records");
        EXPECT_EQ(runs.size(), 1u);
        return runs.empty() ? dir_ + "/records/none" : runs.front();
    }

    std::string dir_;
    std::vector<std::unique_ptr<sandbox::FixturePhone>> phones_;
};

std::string today() {
    char text[16];
    const time_t now = time(nullptr);
    tm parts{};
    gmtime_r(&now, &parts);
    strftime(text, sizeof(text), "%Y-%m-%d", &parts);
    return text;
}

TEST_F(Station, FourPhonesRunOnePlanAndTheOneWhoseAgentDiesFailsAlone) {
    ASSERT_NO_FATAL_FAILURE(start_phones(4));
    phones_[2]->kill_agent_on_command(137);
    ProgramRun run = station();
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_NE(run.out.find("3 of 4 phones passed"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("slot 3 " + phones_[2]->device() + " SN-0003: failed at \"card\": nothing came within 3000 ms"),
              std::string::npos)
        << run.out;

    // A passed phone, field by field.
    const std::string folder = run_dir();
    EXPECT_EQ(fs::path(folder).filename().string().substr(15), "Z-plan") << folder;
    nlohmann::json one = read_json(folder + "/slot-1.json");
    ASSERT_FALSE(one.is_discarded());
    EXPECT_EQ(one["slot"], 1);
    EXPECT_EQ(one["device"], phones_[0]->device());
    EXPECT_EQ(one["board"], "SN-0001");
    EXPECT_EQ(one["verdict"], "pass");
    EXPECT_EQ(one["plan"]["station"], 12);
    EXPECT_EQ(one["plan"]["file"], dir_ + "/plan.toml");
    ASSERT_EQ(one["steps"].size(), 12u);
    std::vector<std::string> names;
    for (const auto& s : one["steps"]) {
        names.push_back(s["name"]);
        EXPECT_EQ(s["verdict"], "pass") << s.dump();
        EXPECT_TRUE(s["duration_ms"].is_number());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"enter-amt", "version", "board number written", "board get", "date set",
                                               "date get", "rf write", "rf read back", "rf golden", "card",
                                               "forwarded to wfmgr", "verdict"}));
    const auto& board_set = one["steps"][2];
    EXPECT_EQ(board_set["request"]["value"], "SN-0001");
    // Command 87 with "SN-0001" and its zero byte.
    EXPECT_EQ(board_set["request"]["frame"],
              "AA BB CC DD 14 00 00 00 02 00 00 00 57 00 00 00 53 4E 2D 30 30 30 31 00 4E 89 47 A4");
    const auto& board_get = one["steps"][3];
    EXPECT_EQ(board_get["measured"], "SN-0001");
    EXPECT_EQ(board_get["limits"]["equals"], "SN-0001");
    EXPECT_EQ(board_get["answer"]["outcome"], "accepted");
    EXPECT_EQ(board_get["answer"]["result_code"], 0);
    EXPECT_EQ(one["steps"][5]["measured"], today());
    EXPECT_EQ(one["steps"][7]["measured"], "A0 A1 A2 A3 A4 A5 A6 A7");
    EXPECT_EQ(one["steps"][7]["limits"]["written_by_step"], 7);
    EXPECT_EQ(one["steps"][8]["measured"], "10 11 12 13 14 15 16 17 18 19 1A 1B 1C 1D 1E 1F");
    EXPECT_EQ(one["steps"][8]["answer"]["bytes"], 16);
    EXPECT_EQ(one["steps"][9]["measured"], 16384);
    EXPECT_EQ(one["steps"][9]["limits"], nlohmann::json({{"min", 1024}, {"max", 65536}}));
    EXPECT_EQ(one["steps"][10]["measured"], "01 02 03 04");
    // Command 91: station 12, result 1, "pass".
    EXPECT_EQ(one["steps"][11]["request"]["frame"],
              "AA BB CC DD 19 00 00 00 02 00 00 00 5B 00 00 00 0C 00 00 00 01 00 00 00 70 61 73 73 00 17 F7 FE 9D");
    for (size_t i : {0, 1, 3}) {
        const std::string results = phones_[i]->phone().read_file("/amt/test_result.txt").value_or("");
        EXPECT_NE(results.find("\r\n12,1,pass\r\n"), std::string::npos) << "phone " << i + 1;
        EXPECT_EQ(phones_[i]->phone().read_file("/amt/board_no.txt"), "SN-000" + std::to_string(i + 1))
            << "phone " << i + 1;
    }

    // The phone whose agent died: failed at the card, the steps behind it not
    // run, no verdict written.
    nlohmann::json three = read_json(folder + "/slot-3.json");
    EXPECT_EQ(three["verdict"], "fail");
    EXPECT_EQ(three["board"], "SN-0003");
    EXPECT_EQ(three["failed_step"], "card");
    EXPECT_EQ(three["reason"], "nothing came within 3000 ms");
    ASSERT_EQ(three["steps"].size(), 11u);
    EXPECT_EQ(three["steps"][8]["verdict"], "pass");
    EXPECT_EQ(three["steps"][9]["verdict"], "fail");
    EXPECT_EQ(three["steps"][9]["answer"]["outcome"], "nothing");
    EXPECT_EQ(three["steps"][10]["verdict"], "not-run");
    EXPECT_EQ(three["steps"][10]["reason"], "step \"card\" failed");
    EXPECT_FALSE(phones_[2]->phone().exists("/amt/test_result.txt"));
    EXPECT_EQ(three["stored"]["written"], false);

    // The JUnit file through a real XML parser: per suite its counts, then
    // each case that did not pass.
    const std::string script =
        "import sys, xml.etree.ElementTree as ET\n"
        "root = ET.parse(sys.argv[1]).getroot()\n"
        "print(root.tag, root.get('tests'), root.get('failures'), root.get('skipped'))\n"
        "for s in root.findall('testsuite'):\n"
        "    print(s.get('name').split(' ')[0], s.get('name').split(' ')[-1], s.get('tests'), s.get('failures'),"
        " s.get('skipped'), len(s.findall('testcase')))\n"
        "    for c in s.findall('testcase'):\n"
        "        for f in c:\n"
        "            print(' ', c.get('classname'), c.get('name'), f.tag, f.get('message'))\n";
    std::ofstream(dir_ + "/junit.py") << script;
    ProgramRun xml = run_program({"/usr/bin/python3", dir_ + "/junit.py", folder + "/junit.xml"}, dir_ + "/xml.out");
    EXPECT_EQ(xml.status, 0) << xml.out;
    EXPECT_EQ(xml.out,
              "testsuites 47 1 1\n"
              "slot1 SN-0001 12 0 0 12\n"
              "slot2 SN-0002 12 0 0 12\n"
              "slot3 SN-0003 11 1 1 11\n"
              "  slot3 10 card failure nothing came within 3000 ms\n"
              "  slot3 11 forwarded to wfmgr skipped step \"card\" failed\n"
              "slot4 SN-0004 12 0 0 12\n");
    EXPECT_EQ(phones_[2]->agent().wait_exit(kWait), 128 + SIGKILL);
}

// Ctrl-C while a phone's answer is awaited: the slot is stopped at once, the
// others have finished, and every record is written. A plan that cannot run
// ends with status 2 before any line is opened.
TEST_F(Station, InterruptStopsTheWaitingSlotAndTheRecordsAreStillWritten) {
    ASSERT_NO_FATAL_FAILURE(start_phones(2));
    std::ofstream(dir_ + "/bad.toml") << "station = 12\n[[step]]\ncommand = \"card\"\nexpect = { max = -1, min = 0 }\n";
    ProgramRun refused = station("bad.toml");
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.out, "ovta-station: plan refused: " + dir_ + "/bad.toml:4: min 0 is above max -1\n");
    EXPECT_TRUE(run_folders(dir_ + "/records").empty());

    std::ofstream(dir_ + "/wait.toml") << "[[step]]\ncommand = \"version\"\n"
                                          "[[step]]\ncommand = \"card\"\ntimeout_ms = 120000\n"
                                          "[[step]]\ncommand = \"version\"\n";
    phones_[1]->kill_agent_on_command(137);
    const pid_t pid = start_program(station_args("wait.toml"), dir_ + "/station.out");
    // Once the second agent is dead, its slot waits for the card's answer.
    EXPECT_EQ(phones_[1]->agent().wait_exit(kWait), 128 + SIGKILL);
    // And the first phone has passed its plan.
    const std::string done = "slot 1 " + phones_[0]->device() + " step 3/3 version: pass";
    for (int waited = 0; waited < 1000 && file_text(dir_ + "/station.out").find(done) == std::string::npos; ++waited) {
        std::this_thread::sleep_for(10ms);
    }
    kill(pid, SIGINT);
    ProgramRun run = finish_program(pid, dir_ + "/station.out");
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_NE(run.out.find("1 of 2 phones passed (stopped)"), std::string::npos) << run.out;
    nlohmann::json one = read_json(run_dir() + "/slot-1.json");
    EXPECT_EQ(one["verdict"], "pass");
    nlohmann::json two = read_json(run_dir() + "/slot-2.json");
    EXPECT_EQ(two["verdict"], "stopped");
    ASSERT_EQ(two["steps"].size(), 3u);
    EXPECT_EQ(two["steps"][0]["verdict"], "pass");
    EXPECT_EQ(two["steps"][1]["verdict"], "stopped");
    EXPECT_EQ(two["steps"][1]["answer"]["outcome"], "stopped");
    EXPECT_EQ(two["steps"][2]["verdict"], "not-run");
    EXPECT_TRUE(fs::exists(run_dir() + "/junit.xml"));
}

// Fresh test result stores and a plan time far below the store's two-second
// creation wait: the verdict waits it out, every record says pass and every
// phone holds pass. No board number is given and the plan sets none: the
// record has the phone's own. A second run writes a folder of its own and
// leaves the first one's files as they were.
TEST_F(Station, FreshStoresWithAShortPlanTimeHoldTheVerdictTheRecordsSay) {
    ASSERT_NO_FATAL_FAILURE(start_phones(2));
    for (size_t i = 0; i < 2; ++i) {
        ASSERT_TRUE(phones_[i]->phone().write_file("/amt/board_no.txt", "SN-77" + std::to_string(i + 1)));
        ASSERT_FALSE(phones_[i]->phone().exists("/amt/test_result.txt"));
    }
    std::ofstream(dir_ + "/short.toml") << "station = 12\nverdict = true\ntimeout_ms = 500\n"
                                           "[[step]]\ncommand = \"version\"\n[[step]]\ncommand = \"card\"\n";
    ProgramRun first = station("short.toml");
    EXPECT_EQ(first.status, 0) << first.out;
    EXPECT_NE(first.out.find("2 of 2 phones passed"), std::string::npos) << first.out;
    const std::string run = run_dir();
    for (size_t i = 0; i < 2; ++i) {
        const nlohmann::json r = read_json(run + "/slot-" + std::to_string(i + 1) + ".json");
        EXPECT_EQ(r["verdict"], "pass") << r.dump(2);
        EXPECT_EQ(r["board"], "SN-77" + std::to_string(i + 1));
        EXPECT_EQ(r["stored"]["written"], true);
        EXPECT_EQ(r["stored"]["result"], 1);
        EXPECT_EQ(r["stored"]["description"], "pass");
        const std::string held = phones_[i]->phone().read_file("/amt/test_result.txt").value_or("");
        EXPECT_NE(held.find("\r\n12,1,pass\r\n"), std::string::npos) << "phone " << i + 1;
    }
    const std::string first_record = file_text(run + "/slot-1.json");
    const std::string first_junit = file_text(run + "/junit.xml");

    std::this_thread::sleep_for(1100ms);  // a run folder is named by its second
    ProgramRun second = station("short.toml");
    EXPECT_EQ(second.status, 0) << second.out;
    const std::vector<std::string> runs = run_folders(dir_ + "/records");
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[0], run);
    EXPECT_EQ(file_text(run + "/slot-1.json"), first_record);
    EXPECT_EQ(file_text(run + "/junit.xml"), first_junit);
    EXPECT_TRUE(fs::exists(runs[1] + "/slot-2.json"));
}

}  // namespace
}  // namespace e2e
