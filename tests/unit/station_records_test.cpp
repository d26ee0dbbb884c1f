// The run's JUnit file stays well-formed XML whatever the plan names its
// steps and whatever the phone answers: read back by Python's XML parser,
// every name and reason comes out as it went in.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>

#include "pc/station/record_keeper.hpp"
#include "pc/station/records.hpp"
#include "pc/station/run_folder.hpp"

namespace {

// Runs python3 on `script` with `arg`; its standard output.
std::string python(const std::string& script, const std::string& arg) {
    const std::string command = "/usr/bin/python3 -c '" + script + "' " + arg;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) return "popen failed";
    std::string out;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
    const int status = pclose(p);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? out : "python3 failed: " + out;
}

TEST(StationRecords, JunitOfHostileNamesParsesAndKeepsEveryText) {
    station::Plan plan;
    plan.path = "/tmp/a&b.toml";
    plan.name = "a&b.toml";
    station::SlotRecord ok;
    ok.slot = 1;
    ok.device = "/dev/ttyACM<0>";
    ok.board = "SN\"1'";
    ok.passed = true;
    station::StepRecord step;
    step.index = 1;
    step.name = "read <&> \"it\"";
    step.command = "rf read";
    step.verdict = station::StepVerdict::kPass;
    ok.steps.push_back(step);
    station::SlotRecord bad = ok;
    bad.slot = 2;
    bad.passed = false;
    bad.steps[0].verdict = station::StepVerdict::kFail;
    bad.steps[0].reason = std::string("\"\x01\x1b[2K\" where \"ok & <fine>\" belongs");
    bad.steps[0].answer = {{"text", "a\x02z"}};
    station::SlotRecord unopened;
    unopened.slot = 3;
    unopened.device = "/dev/none";
    unopened.failed_step = "open the line";
    unopened.reason = "cannot open /dev/none: No such file or directory";

    const std::string path = std::filesystem::temp_directory_path() / "ovta-junit-test.xml";
    std::ofstream(path) << station::junit_xml(plan, {ok, bad, unopened});
    const std::string script =
        "import sys, xml.etree.ElementTree as ET\n"
        "root = ET.parse(sys.argv[1]).getroot()\n"
        "print(root.get(\"name\"), root.get(\"tests\"), root.get(\"failures\"))\n"
        "for s in root: print(repr(s.get(\"name\")), [(c.get(\"name\"), [(f.tag, f.get(\"message\"), f.text) for f in c]) for c in s])\n";
    EXPECT_EQ(python(script, path),
              "ovta-station a&b.toml 3 2\n"
              "'slot1 /dev/ttyACM<0> SN\"1\\'' [('1 read <&> \"it\"', [])]\n"
              "'slot2 /dev/ttyACM<0> SN\"1\\'' [('1 read <&> \"it\"', [('failure', '\"\xEF\xBF\xBD\xEF\xBF\xBD" "[2K\" where \"ok & <fine>\" "
              "belongs', '{\"text\":\"a\\\\u0002z\"}')])]\n"
              "'slot3 /dev/none' [('0 open the line', [('failure', 'cannot open /dev/none: No such file or directory', "
              "'{}')])]\n");
    std::filesystem::remove(path);
}

// The record counts the plan's steps, not the slot's (which add the
// verdict); an unanswered verdict reads "unknown" and fails in the JUnit
// file; a loop's phones each get a file of their own.
TEST(StationRecords, RecordCountsThePlansStepsAndKeepsEveryPhoneApart) {
    station::Plan plan;
    plan.path = "p.toml";
    plan.name = "p.toml";
    plan.station = 12;
    plan.steps.resize(2);
    station::SlotRecord r;
    r.slot = 3;
    r.unknown = true;
    r.failed_step = "verdict";
    for (size_t i = 1; i <= 3; ++i) {
        station::StepRecord s;
        s.index = i;
        s.name = i == 3 ? "verdict" : "step";
        s.verdict = i == 3 ? station::StepVerdict::kFail : station::StepVerdict::kPass;
        r.steps.push_back(s);
    }
    const nlohmann::json j = station::slot_json(plan, r);
    EXPECT_EQ(j["plan"]["steps"], 2);
    EXPECT_EQ(j["verdict"], "unknown");
    EXPECT_EQ(station::slot_file_name(r), "slot-3.json");
    r.phone = 12;
    EXPECT_EQ(station::slot_file_name(r), "slot-3-0012.json");

    char dir[] = "/tmp/ovta-records-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string name = station::run_folder_name("20261126T054412Z", "fixture.toml");
    EXPECT_EQ(name, "20261126T054412Z-fixture");
    std::string error;
    // Two runs in the same second: the second never shares the first's folder.
    auto first = station::make_run_folder(std::string(dir) + "/records", name, &error);
    auto second = station::make_run_folder(std::string(dir) + "/records", name, &error);
    ASSERT_TRUE(first && second) << error;
    EXPECT_EQ(*first, std::string(dir) + "/records/20261126T054412Z-fixture");
    EXPECT_EQ(*second, *first + "-2");

    station::RecordKeeper keeper(plan, *first, *first + "/junit.xml");
    station::SlotRecord pass = r;
    pass.slot = 1;
    pass.phone = 1;
    pass.unknown = false;
    pass.passed = true;
    pass.failed_step.clear();
    pass.steps.resize(2);
    keeper.keep(r);
    keeper.keep(pass);
    ASSERT_TRUE(keeper.write_junit(&error)) << error;
    EXPECT_TRUE(keeper.take_errors().empty());
    EXPECT_EQ(keeper.counts().phones, 2u);
    EXPECT_EQ(keeper.counts().passed, 1u);
    EXPECT_TRUE(std::filesystem::exists(*first + "/slot-3-0012.json"));
    EXPECT_TRUE(std::filesystem::exists(*first + "/slot-1-0001.json"));
    const std::string script =
        "import sys, xml.etree.ElementTree as ET\n"
        "root = ET.parse(sys.argv[1]).getroot()\n"
        "print(root.get(\"tests\"), root.get(\"failures\"), [s.get(\"name\") for s in root])\n";
    EXPECT_EQ(python(script, *first + "/junit.xml"), "5 1 ['slot1.1 ', 'slot3.12 ']\n");
    // Nothing half-written is left beside the records.
    for (const auto& e : std::filesystem::directory_iterator(*first)) {
        EXPECT_EQ(e.path().string().find(".part"), std::string::npos) << e.path();
    }
    std::filesystem::remove_all(dir);
}

}  // namespace
