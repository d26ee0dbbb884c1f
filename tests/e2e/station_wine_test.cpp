// ovta-station.exe, the Windows build, under Wine against real agents in the
// sandbox. Each phone's station end (the slave of its relay's
// pseudo-terminal) is linked to a COM port of the Wine prefix
// (dosdevices/comN), as a USB serial adapter shows up on a Windows PC. Two
// phones pass a plan and their records are read back against what the
// phones hold; a phone that stops answering, a line that hangs up and
// Ctrl-C each end their slot, and the records are still written.
//
// Runs when OVTA_WINDOWS_BUILD names the windows build's folder (with
// ovta-station.exe and its prefix, wine/); skipped otherwise. scripts/test.sh
// windows sets it.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "phone_test.hpp"
#include "station_programs.hpp"

namespace e2e {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const char kPlan[] = R"(station = 12
verdict = true
timeout_ms = 5000
boards = ["WIN-0001", "WIN-0002"]

[[step]]
command = "version"
expect = { matches = "^[0-9]" }

[[step]]
command = "board set"
value = "{board}"

[[step]]
command = "board get"
expect = { equals = "{board}" }

[[step]]
command = "rf write"
table = 1
offset = 0
data = "A0 A1 A2 A3 0D 0A 1A FF"

[[step]]
name = "rf read back"
command = "rf read"
table = 1
offset = 0
len = 8
expect = { written = true }
)";

std::string raw_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class StationOnWine : public PhoneTest {
protected:
    void SetUp() override {
        const char* build = getenv("OVTA_WINDOWS_BUILD");
        if (build == nullptr || !fs::exists(fs::path(build) / "ovta-station.exe")) {
            GTEST_SKIP() << "OVTA_WINDOWS_BUILD names no windows build (scripts/test.sh windows)";
        }
        build_ = build;
        PhoneTest::SetUp();
        if (IsSkipped()) return;
        char dir[] = "/tmp/ovta-station-wine-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        std::ofstream(dir_ + "/plan.toml", std::ios::binary) << kPlan;
    }

    void TearDown() override {
        phones_.clear();
        for (const fs::path& link : links_) fs::remove(link);
        PhoneTest::TearDown();
        if (!dir_.empty()) fs::remove_all(dir_);
    }

    // Phones side by side, each behind a COM port of the prefix.
    void start_phones(size_t n) {
        sandbox::FixtureSetup setup;
        setup.phone.config = "amt_relate_path = /amt/\n";
        setup.phone.host_dirs = {OVTA_BINARY_DIR};
        setup.files = {{"/amt/rf/rf_table_1.bin", std::string(64, '\0')}};
        setup.agent = OVTA_BINARY_DIR "/ovta-amt";
        setup.wfmgr_sim = OVTA_BINARY_DIR "/wfmgr-sim";
        setup.wfmgr_args = {"--amt-path", "/amt/", "--rf-path", "/amt/rf/", "--rftab", "1=rf_table_1.bin"};
        std::vector<std::string> whys(n);
        phones_.resize(n);
        std::vector<std::thread> starters;
        for (size_t i = 0; i < n; ++i) {
            starters.emplace_back([&, i] { phones_[i] = sandbox::FixturePhone::start(setup, &whys[i]); });
        }
        for (std::thread& t : starters) t.join();
        for (size_t i = 0; i < n; ++i) {
            ASSERT_NE(phones_[i], nullptr) << "phone " << i + 1 << ": " << whys[i];
            // The COM port's number follows the pseudo-terminal's, so that
            // tests running at once each have their own.
            const std::string pts = phones_[i]->device();
            const int number = 20 + std::stoi(pts.substr(pts.rfind('/') + 1)) % 200;
            coms_.push_back("COM" + std::to_string(number));
            const fs::path link = build_ / "wine" / "dosdevices" / ("com" + std::to_string(number));
            fs::create_directories(link.parent_path());
            fs::remove(link);
            fs::create_symlink(pts, link);
            links_.push_back(link);
        }
    }

    pid_t start_station(const std::string& plan) {
        std::vector<std::string> args = {OVTA_SOURCE_DIR "/cmake/wine-run.sh", (build_ / "wine").string(),
                                         (build_ / "ovta-station.exe").string(), dir_ + "/" + plan, "--records",
                                         dir_ + "/records", "--plain"};
        for (const std::string& com : coms_) args.insert(args.end(), {"--device", com});
        return start_program(args, dir_ + "/station.out");
    }

    ProgramRun station(const std::string& plan = "plan.toml") {
        return finish_program(start_station(plan), dir_ + "/station.out");
    }

    std::string run_dir() {
        const std::vector<std::string> runs = run_folders(dir_ + "/records");
        EXPECT_EQ(runs.size(), 1u);
        return runs.empty() ? dir_ + "/records/none" : runs.front();
    }

    // Waits until the station's output holds `text`.
    bool printed(const std::string& text) {
        for (int waited = 0; waited < 3000; ++waited) {
            if (file_text(dir_ + "/station.out").find(text) != std::string::npos) return true;
            std::this_thread::sleep_for(10ms);
        }
        return false;
    }

    fs::path build_;
    std::string dir_;
    std::vector<std::unique_ptr<sandbox::FixturePhone>> phones_;
    std::vector<std::string> coms_;
    std::vector<fs::path> links_;
};

TEST_F(StationOnWine, TwoPhonesPassThroughComPortsAndTheRecordsSayWhatThePhonesHold) {
    ASSERT_NO_FATAL_FAILURE(start_phones(2));
    ProgramRun run = station();
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_NE(run.out.find("2 of 2 phones passed"), std::string::npos) << run.out;
    const std::string folder = run_dir();
    for (size_t i = 0; i < 2; ++i) {
        const std::string name = folder + "/slot-" + std::to_string(i + 1) + ".json";
        // Written in binary mode: no line end became CR LF.
        EXPECT_EQ(raw_bytes(name).find('\r'), std::string::npos) << name;
        const nlohmann::json r = read_json(name);
        ASSERT_FALSE(r.is_discarded()) << name;
        const std::string board = "WIN-000" + std::to_string(i + 1);
        EXPECT_EQ(r["device"], coms_[i]);
        EXPECT_EQ(r["verdict"], "pass") << r.dump(2);
        EXPECT_EQ(r["board"], board);
        ASSERT_EQ(r["steps"].size(), 6u);
        EXPECT_EQ(r["steps"][2]["measured"], board);
        // The bytes that a text-mode stream would have changed came back whole.
        EXPECT_EQ(r["steps"][4]["measured"], "A0 A1 A2 A3 0D 0A 1A FF");
        EXPECT_EQ(r["stored"]["written"], true);
        // What the phone holds is what the record says.
        EXPECT_EQ(phones_[i]->phone().read_file("/amt/board_no.txt"), board);
        const std::string results = phones_[i]->phone().read_file("/amt/test_result.txt").value_or("");
        EXPECT_NE(results.find("12,1,pass"), std::string::npos) << results;
        EXPECT_EQ(phones_[i]->phone().read_file("/amt/rf/rf_table_1.bin").value_or("").substr(0, 8),
                  std::string("\xA0\xA1\xA2\xA3\x0D\x0A\x1A\xFF", 8));
    }
    const std::string junit = raw_bytes(folder + "/junit.xml");
    EXPECT_EQ(junit.find('\r'), std::string::npos);
    EXPECT_NE(junit.find("<testsuites"), std::string::npos) << junit;
}

// The first phone's agent dies at the card: nothing comes and the step times
// out. The second's dies too and then its cable is pulled: the read fails at
// once. Neither gets a verdict; both records are written.
TEST_F(StationOnWine, PhoneThatStopsAnsweringAndLineThatHangsUpFailTheirSlots) {
    ASSERT_NO_FATAL_FAILURE(start_phones(2));
    std::ofstream(dir_ + "/card.toml", std::ios::binary)
        << "station = 12\nverdict = true\n[[step]]\ncommand = \"version\"\n"
           "[[step]]\ncommand = \"card\"\ntimeout_ms = 4000\n[[step]]\ncommand = \"version\"\n";
    phones_[0]->kill_agent_on_command(137);
    phones_[1]->kill_agent_on_command(137);
    const pid_t pid = start_station("card.toml");
    EXPECT_EQ(phones_[1]->agent().wait_exit(kWait), 128 + SIGKILL);
    phones_[1]->hang_up();
    ProgramRun run = finish_program(pid, dir_ + "/station.out");
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_NE(run.out.find("0 of 2 phones passed"), std::string::npos) << run.out;
    const nlohmann::json one = read_json(run_dir() + "/slot-1.json");
    EXPECT_EQ(one["failed_step"], "card");
    EXPECT_EQ(one["reason"], "nothing came within 4000 ms");
    EXPECT_EQ(one["stored"]["written"], false);
    const nlohmann::json two = read_json(run_dir() + "/slot-2.json");
    EXPECT_EQ(two["failed_step"], "card");
    EXPECT_NE(two["reason"].get<std::string>().find("the line failed or hung up"), std::string::npos) << two.dump(2);
    EXPECT_LT(two["duration_ms"].get<int64_t>(), 3500) << "the hang-up waited for the time-out";
    EXPECT_FALSE(phones_[1]->phone().exists("/amt/test_result.txt"));
}

// Ctrl-C while the second phone's answer is awaited: that slot is stopped at
// once, the first has passed, and both records and the JUnit file are written.
TEST_F(StationOnWine, CtrlCStopsTheWaitingSlotAndTheRecordsAreStillWritten) {
    ASSERT_NO_FATAL_FAILURE(start_phones(2));
    std::ofstream(dir_ + "/wait.toml", std::ios::binary)
        << "[[step]]\ncommand = \"version\"\n[[step]]\ncommand = \"card\"\ntimeout_ms = 120000\n"
           "[[step]]\ncommand = \"version\"\n";
    phones_[1]->kill_agent_on_command(137);
    const pid_t pid = start_station("wait.toml");
    EXPECT_EQ(phones_[1]->agent().wait_exit(kWait), 128 + SIGKILL);
    EXPECT_TRUE(printed("slot 1 " + coms_[0] + " step 3/3 version: pass"));
    kill(pid, SIGINT);
    ProgramRun run = finish_program(pid, dir_ + "/station.out");
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_NE(run.out.find("1 of 2 phones passed (stopped)"), std::string::npos) << run.out;
    EXPECT_EQ(read_json(run_dir() + "/slot-1.json")["verdict"], "pass");
    const nlohmann::json two = read_json(run_dir() + "/slot-2.json");
    EXPECT_EQ(two["verdict"], "stopped");
    ASSERT_EQ(two["steps"].size(), 3u);
    EXPECT_EQ(two["steps"][1]["answer"]["outcome"], "stopped");
    EXPECT_TRUE(fs::exists(run_dir() + "/junit.xml"));
}

}  // namespace
}  // namespace e2e
