// The main job as the README runs it: ovta-demo plays a whole station's
// session against the agent, and every command must be accepted, wfmgr's
// file requests answered and the agent stopped cleanly.
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "phone_test.hpp"

namespace {

TEST(MainJob, WholeStationSessionIsAcceptedAndTheAgentStopsCleanly) {
    if (!e2e::network_ready()) GTEST_SKIP() << "no private network: " << e2e::network_problem();
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(out[1], STDERR_FILENO);
        execl(OVTA_BINARY_DIR "/ovta-demo", "ovta-demo", "--seconds", "0", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    std::string text = sandbox::read_to_end(out[0]);
    close(out[0]);
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    for (const char* line : {"pc      | enter AMT: done, loaded", "pc      | version: ",
                             "pc      | production date: 2022-08-05", "pc      | board number: SN-DEMO-0042",
                             "pc      | station 12: result 1, description ok", "pc      | rf read: 32 bytes",
                             "pc      | card: 16384 KiB", "== both requests answered",
                             "== the agent exited with code 0"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line;
    }
}

}  // namespace
