// ovta-station --loop on four slots, three phones through each: every phone
// is laid out fresh (its own agent, wfmgr-sim and stores), put on its slot
// by pointing the slot's stable device name at its line, and taken off
// again (the line hangs up) once its record is there. Each slot's board
// numbers come from a --boards file, in order. One phone lacks its RF table
// and fails a step; one is pulled off the fixture in the middle of its
// plan. Every record is read back and compared with what its phone holds,
// and no record is overwritten. Then the same under ovta-fixture, which
// swaps phones on its own schedule, wherever the plan is, and leaves the
// handshake to the station: whatever happened, no record contradicts the
// phone it names.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <fstream>
#include <set>
#include <thread>

#include "phone_test.hpp"
#include "station_programs.hpp"

namespace e2e {
namespace {

namespace fs = std::filesystem;

constexpr size_t kSlots = 4;
constexpr size_t kPhonesPerSlot = 3;
// Slot 2's second phone has no RF table; slot 3's second is pulled at its card step.
constexpr size_t kFailingSlot = 2;
constexpr size_t kPulledSlot = 3;
constexpr size_t kOddPhone = 2;

const char kLoopPlan[] = R"(station = 12
verdict = true
timeout_ms = 10000

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

std::string board_of(size_t slot, size_t phone) {
    return "SN-" + std::to_string(slot) + "-" + std::to_string(phone);
}

class StationLoop : public PhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        if (IsSkipped()) return;
        char dir[] = "/tmp/ovta-loop-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        std::ofstream(dir_ + "/loop.toml") << kLoopPlan;
        std::ofstream boards(dir_ + "/boards.txt");
        for (size_t phone = 1; phone <= kPhonesPerSlot; ++phone) {
            for (size_t slot = 1; slot <= kSlots; ++slot) boards << slot << " " << board_of(slot, phone) << "\n";
        }
        // Slots 1 to 3 end when their numbers are spent; slot 4 has one
        // more and still waits for a phone when Ctrl-C comes.
        boards << kSlots << " " << board_of(kSlots, kPhonesPerSlot + 1) << "\n";
    }

    void TearDown() override {
        PhoneTest::TearDown();
        if (!dir_.empty()) fs::remove_all(dir_);
    }

    sandbox::FixtureSetup setup(bool with_table) const {
        sandbox::FixtureSetup s;
        s.phone.config = "amt_relate_path = /amt/\n";
        s.phone.host_dirs = {OVTA_BINARY_DIR};
        std::string table;
        for (int i = 0; i < 64; ++i) table.push_back(static_cast<char>(i));
        if (with_table) s.files = {{"/amt/rf/rf_table_1.bin", table}};
        s.agent = OVTA_BINARY_DIR "/ovta-amt";
        s.wfmgr_sim = OVTA_BINARY_DIR "/wfmgr-sim";
        s.wfmgr_args = {"--amt-path", "/amt/", "--rf-path", "/amt/rf/", "--rftab", "1=rf_table_1.bin"};
        return s;
    }

    std::string slot_link(size_t slot) const { return dir_ + "/slot" + std::to_string(slot); }

    // The run's folder, once the station has made it.
    std::string run_dir() const {
        const std::vector<std::string> runs = run_folders(dir_ + "/records");
        return runs.size() == 1 ? runs.front() : "";
    }

    // Puts each phone in turn on the slot and takes it off once its record
    // is written; checks each phone against its record while it is there.
    void serve_slot(size_t slot) {
        for (size_t phone = 1; phone <= kPhonesPerSlot; ++phone) {
            const bool odd = phone == kOddPhone;
            std::string why;
            auto p = sandbox::FixturePhone::start(setup(!(odd && slot == kFailingSlot)), &why);
            ASSERT_NE(p, nullptr) << "slot " << slot << " phone " << phone << ": " << why;
            if (odd && slot == kPulledSlot) p->kill_agent_on_command(137);
            fs::remove(slot_link(slot));
            fs::create_symlink(p->device(), slot_link(slot));
            if (odd && slot == kPulledSlot) {
                // The agent dies as the card command comes; then the phone
                // is pulled off while the station waits for the answer.
                EXPECT_EQ(p->agent().wait_exit(60s), 128 + SIGKILL);
                fs::remove(slot_link(slot));
                p.reset();
            }
            char name[32];
            snprintf(name, sizeof(name), "/slot-%zu-%04zu.json", slot, phone);
            std::string record_path;
            for (int waited = 0; waited < 600; ++waited) {
                const std::string run = run_dir();
                if (!run.empty() && fs::exists(run + name)) {
                    record_path = run + name;
                    break;
                }
                std::this_thread::sleep_for(100ms);
            }
            ASSERT_FALSE(record_path.empty()) << "no record " << name;
            const nlohmann::json r = read_json(record_path);
            records_[slot - 1][phone - 1] = r;
            if (!p) continue;
            // The record says what the phone holds.
            const std::string held = p->phone().read_file("/amt/test_result.txt").value_or("");
            const std::string line = r["verdict"] == "pass" ? "\r\n12,1,pass\r\n" : "\r\n12,0,fail: ";
            EXPECT_NE(held.find(line), std::string::npos) << "slot " << slot << " phone " << phone << r.dump(2);
            EXPECT_EQ(r["stored"]["result"], r["verdict"] == "pass" ? 1 : 0);
            EXPECT_EQ(p->phone().read_file("/amt/board_no.txt"), board_of(slot, phone));
            // Taken off: the line hangs up and the name goes.
            fs::remove(slot_link(slot));
            p.reset();
        }
    }

    std::string dir_;
    nlohmann::json records_[kSlots][kPhonesPerSlot];
};

TEST_F(StationLoop, ThreePhonesThroughEachOfFourSlotsEachWithItsOwnRecord) {
    std::vector<std::string> args = {OVTA_BINARY_DIR "/ovta-station", dir_ + "/loop.toml", "--loop", "--boards",
                                     dir_ + "/boards.txt", "--records", dir_ + "/records"};
    for (size_t slot = 1; slot <= kSlots; ++slot) args.insert(args.end(), {"--device", slot_link(slot)});
    // The slots' names do not exist yet: the station waits for the phones.
    const pid_t pid = start_program(args, dir_ + "/station.out");
    std::vector<std::thread> slots;
    for (size_t slot = 1; slot <= kSlots; ++slot) slots.emplace_back([this, slot] { serve_slot(slot); });
    for (std::thread& t : slots) t.join();
    kill(pid, SIGINT);
    ProgramRun run = finish_program(pid, dir_ + "/station.out");
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_NE(run.out.find("10 of 12 phones passed (stopped)"), std::string::npos) << run.out;

    for (size_t slot = 1; slot <= kSlots; ++slot) {
        for (size_t phone = 1; phone <= kPhonesPerSlot; ++phone) {
            const nlohmann::json& r = records_[slot - 1][phone - 1];
            SCOPED_TRACE("slot " + std::to_string(slot) + " phone " + std::to_string(phone));
            EXPECT_EQ(r["slot"], slot);
            EXPECT_EQ(r["phone"], phone);
            EXPECT_EQ(r["board"], board_of(slot, phone));
            if (phone == kOddPhone && slot == kFailingSlot) {
                EXPECT_EQ(r["verdict"], "fail");
                EXPECT_EQ(r["failed_step"], "rf read");
                EXPECT_EQ(r["stored"]["description"], "fail: rf read");
            } else if (phone == kOddPhone && slot == kPulledSlot) {
                EXPECT_EQ(r["verdict"], "fail");
                EXPECT_EQ(r["failed_step"], "card");
                EXPECT_EQ(r["stored"]["written"], false);
            } else {
                EXPECT_EQ(r["verdict"], "pass") << r.dump(2);
                EXPECT_EQ(r["stored"]["description"], "pass");
            }
        }
    }
    // Every phone's file is still the one written for it, and the JUnit
    // file has a suite for each of the twelve.
    const std::string run_folder = run_dir();
    size_t files = 0;
    for (const auto& e : fs::directory_iterator(run_folder)) {
        files += e.path().extension() == ".json" ? 1 : 0;
        EXPECT_EQ(e.path().string().find(".part"), std::string::npos) << e.path();
    }
    EXPECT_EQ(files, kSlots * kPhonesPerSlot);
    for (size_t slot = 1; slot <= kSlots; ++slot) {
        for (size_t phone = 1; phone <= kPhonesPerSlot; ++phone) {
            char name[32];
            snprintf(name, sizeof(name), "/slot-%zu-%04zu.json", slot, phone);
            EXPECT_EQ(read_json(run_folder + name), records_[slot - 1][phone - 1]) << name;
        }
    }
    const std::string junit = file_text(run_folder + "/junit.xml");
    size_t suites = 0;
    for (size_t at = junit.find("<testsuite "); at != std::string::npos; at = junit.find("<testsuite ", at + 1)) ++suites;
    EXPECT_EQ(suites, kSlots * kPhonesPerSlot);
}

// The phone trees ovta-fixture kept, DIR/slot-N/phone-K/amt/, by the board
// number each one holds.
std::map<std::string, std::string> phones_by_board(const std::string& fixture) {
    std::map<std::string, std::string> out;
    for (const auto& slot : fs::directory_iterator(fixture)) {
        if (!slot.is_directory()) continue;
        for (const auto& phone : fs::directory_iterator(slot.path())) {
            const std::string amt = phone.path().string() + "/amt";
            if (fs::exists(amt + "/board_no.txt")) out[file_text(amt + "/board_no.txt")] = amt;
        }
    }
    return out;
}

TEST_F(StationLoop, SwapsOnTheFixturesScheduleNeverLeaveARecordThatContradictsItsPhone) {
    std::ofstream boards(dir_ + "/many.txt");
    for (size_t phone = 1; phone <= 20; ++phone) {
        for (size_t slot = 1; slot <= kSlots; ++slot) boards << slot << " " << board_of(slot, phone) << "\n";
    }
    boards.close();
    const std::string fixture = dir_ + "/fixture";
    std::vector<std::string> args = {OVTA_BINARY_DIR "/ovta-fixture", "--phones", std::to_string(kSlots), "--dir",
                                     fixture, "--swap-every", "7", "--swap-gap", "0.5", "--pull-on", "3:137",
                                     "--station-handshake", "--", OVTA_BINARY_DIR "/ovta-station",
                                     dir_ + "/loop.toml", "--loop", "--boards", dir_ + "/many.txt", "--records",
                                     dir_ + "/records"};
    const pid_t pid = start_program(args, dir_ + "/fixture.out");
    // Until every slot has had three phones.
    auto records_of = [&](size_t slot) {
        size_t n = 0;
        const std::string run = run_dir();
        if (run.empty()) return n;
        char name[32];
        for (;; ++n) {
            snprintf(name, sizeof(name), "/slot-%zu-%04zu.json", slot, n + 1);
            if (!fs::exists(run + name)) return n;
        }
    };
    const auto deadline = std::chrono::steady_clock::now() + 150s;
    for (size_t slot = 1; slot <= kSlots; ++slot) {
        while (records_of(slot) < kPhonesPerSlot && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(200ms);
        }
    }
    kill(pid, SIGTERM);  // passed on to the station
    ProgramRun run = finish_program(pid, dir_ + "/fixture.out");
    EXPECT_EQ(run.status, 1) << run.out;
    const std::string run_folder = run_dir();
    ASSERT_FALSE(run_folder.empty()) << run.out;

    const std::map<std::string, std::string> phones = phones_by_board(fixture);
    std::set<std::string> boards_seen;
    bool pulled_at_card = false;
    size_t files = 0;
    for (size_t slot = 1; slot <= kSlots; ++slot) {
        const size_t n = records_of(slot);
        EXPECT_GE(n, kPhonesPerSlot) << "slot " << slot << "\n" << run.out;
        files += n;
        for (size_t phone = 1; phone <= n; ++phone) {
            char name[32];
            snprintf(name, sizeof(name), "/slot-%zu-%04zu.json", slot, phone);
            const nlohmann::json r = read_json(run_folder + name);
            SCOPED_TRACE(std::string(name) + " " + r.dump(2));
            EXPECT_EQ(r["phone"], phone);
            // Each phone took the next number of its slot's list.
            EXPECT_EQ(r["board"], board_of(slot, phone));
            EXPECT_TRUE(boards_seen.insert(r["board"].get<std::string>()).second);
            pulled_at_card = pulled_at_card || (slot == 3 && r["failed_step"] == "card");
            // The phone that took this board number, when it got that far.
            const auto tree = phones.find(r["board"].get<std::string>());
            const std::string verdict = r["verdict"];
            if (verdict == "pass") {
                ASSERT_NE(tree, phones.end());
                EXPECT_NE(file_text(tree->second + "/test_result.txt").find("\r\n12,1,pass\r\n"), std::string::npos);
            } else if (verdict == "fail" && r["stored"]["written"] == true) {
                ASSERT_NE(tree, phones.end());
                EXPECT_NE(file_text(tree->second + "/test_result.txt").find("\r\n12,0,fail: "), std::string::npos);
            } else if (verdict == "fail" && tree != phones.end()) {
                // Nothing written, or refused: the phone holds no pass.
                EXPECT_EQ(file_text(tree->second + "/test_result.txt").find("\r\n12,1,"), std::string::npos);
            }
        }
    }
    EXPECT_TRUE(pulled_at_card) << "no record of the phone pulled at its card step";
    size_t json = 0;
    for (const auto& e : fs::directory_iterator(run_folder)) json += e.path().extension() == ".json" ? 1 : 0;
    EXPECT_EQ(json, files);
}

}  // namespace
}  // namespace e2e
