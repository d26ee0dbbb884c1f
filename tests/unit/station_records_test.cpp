// The run's JUnit file stays well-formed XML whatever the plan names its
// steps and whatever the phone answers: read back by Python's XML parser,
// every name and reason comes out as it went in.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>

#include "pc/station/records.hpp"

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

}  // namespace
