// wfmgr-sim as the demonstration runs it: the real program in the test's
// private network, with the test playing the agent on its TCP connection.
// Expected requests are written out by hand from the message layouts.
#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "phone_test.hpp"
#include "sandbox_io.hpp"
#include "tools/lib/hex_text.hpp"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

Bytes hex(const char* text) { return *tools::parse_hex(text); }

// The requests of --info-read 1 0 16, --amt-read 4 8 and
// --confirm-modify 1 0 0102 under wf_id 7.
const char kInfoRead[] =
    "20 00 00 00 07 00 00 00 FF FF FF FF 07 00 04 00 0C 00 00 00 01 00 00 00 00 00 00 00 10 00 00 00";
const char kAmtRead[] =
    "24 00 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 10 00 00 00 00 00 00 00 04 00 00 00 08 00 00 00 99 00 00 00";
const char kConfirmModify[] =
    "26 00 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 12 00 00 00 01 00 00 00 00 00 00 00 06 00 00 00 9B 00 00 00 "
    "01 02";

class WfmgrSim : public ::testing::Test {
protected:
    void SetUp() override {
        if (!e2e::network_ready()) GTEST_SKIP() << "no private network: " << e2e::network_problem();
        char dir[] = "/tmp/wfmgr_sim_testXXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override {
        if (conn_ >= 0) close(conn_);
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (!dir_.empty()) {
            EXPECT_EQ(system(("rm -rf " + dir_).c_str()), 0);
        }
    }

    void start(std::vector<std::string> args) {
        args.insert(args.begin(), OVTA_BINARY_DIR "/wfmgr-sim");
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        const std::string log = dir_ + "/log";
        pid_ = fork();
        if (pid_ == 0) {
            int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(fd, STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }

    // Connects as the agent does, once wfmgr-sim listens.
    void connect_as_agent() {
        for (int tries = 0; tries < 100 && conn_ < 0; ++tries) {
            int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in addr{};
            addr.sin_family = AF_INET;
            addr.sin_port = htons(8030);
            addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
                conn_ = fd;
            } else {
                close(fd);
                std::this_thread::sleep_for(50ms);
            }
        }
        ASSERT_GE(conn_, 0) << "wfmgr-sim does not listen";
    }

    // The next whole message: total_len, then the rest.
    std::string next_message() {
        auto head = sandbox::read_exact(conn_, 4, 5000ms);
        if (!head) return "nothing";
        const uint32_t total = (*head)[0] | (*head)[1] << 8 | (*head)[2] << 16 | (*head)[3] << 24;
        auto rest = sandbox::read_exact(conn_, total - 4, 5000ms);
        if (!rest) return "cut";
        head->insert(head->end(), rest->begin(), rest->end());
        return tools::to_hex(*head);
    }

    // Waits until wfmgr-sim's log holds `text`.
    bool log_has(const std::string& text) {
        for (int tries = 0; tries < 100; ++tries) {
            if (read_file("log").find(text) != std::string::npos) return true;
            std::this_thread::sleep_for(50ms);
        }
        return false;
    }

    std::string read_file(const std::string& name) const {
        std::ifstream in(dir_ + "/" + name, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }

    std::string dir_;
    pid_t pid_ = -1;
    int conn_ = -1;
};

TEST_F(WfmgrSim, FileRequestsFollowTheIndicationsAndComeAgainOnSigusr1) {
    start({"--wf-id", "7", "--rf-path", "/amt/rf/", "--rftab", "1=rf_table_1.bin", "--info-read", "1", "0", "16",
           "--amt-read", "4", "8", "--confirm-modify", "1", "0", "0102", "--out", dir_ + "/data.bin"});
    connect_as_agent();
    EXPECT_EQ(next_message().substr(12 * 3, 11), "0D 00 04 00");  // relate info indication
    EXPECT_EQ(next_message().substr(12 * 3, 11), "0E 00 04 00");  // res info indication
    EXPECT_EQ(next_message(), kInfoRead);
    EXPECT_EQ(next_message(), kAmtRead);
    EXPECT_EQ(next_message(), kConfirmModify);

    // The agent's info read confirm: 3 bytes read, total_len 39 grown to 42.
    ASSERT_TRUE(sandbox::write_all(conn_,
                                   hex("2A 00 00 00 07 00 00 00 FF FF FF FF 08 00 04 00 13 00 00 00 01 00 00 00 00 00 "
                                       "00 00 10 00 00 00 03 00 00 00 41 42 43 00 00 00"),
                                   5000ms));
    EXPECT_TRUE(log_has("recv info read confirm 0x40008 total_len 42 wf_id 0x7 body_len 19 table_type 1 offset 0 "
                        "len 16 readed_len 3 data 41 42 43"))
        << read_file("log");
    EXPECT_TRUE(log_has("kept 3 bytes in")) << read_file("log");
    EXPECT_EQ(read_file("data.bin"), "ABC");

    kill(pid_, SIGUSR1);
    EXPECT_EQ(next_message(), kInfoRead);
    EXPECT_EQ(next_message(), kAmtRead);
    EXPECT_EQ(next_message(), kConfirmModify);

    kill(pid_, SIGTERM);
    int status = -1;
    ASSERT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(WfmgrSim, HeldRequestsWaitForSigusr1AndLoadConfirmCarriesTheOptions) {
    start({"--wf-id", "9", "--load-error", "3", "--hold-requests", "--amt-read", "0", "2"});
    connect_as_agent();
    next_message();
    next_message();
    // A load request for "demo" in mode 0.
    Bytes load(88);
    const Bytes head = hex("58 00 00 00 FF FF FF FF FF FF FF FF 01 00 04 00 44 00 00 00 64 65 6D 6F");
    std::copy(head.begin(), head.end(), load.begin());
    ASSERT_TRUE(sandbox::write_all(conn_, load, 5000ms));
    EXPECT_EQ(next_message(), "1C 00 00 00 09 00 00 00 FF FF FF FF 02 00 04 00 08 00 00 00 09 00 00 00 03 00 00 00");
    EXPECT_TRUE(sandbox::quiet_for(conn_, 300ms));
    kill(pid_, SIGUSR1);
    EXPECT_EQ(next_message(),
              "24 00 00 00 09 00 00 00 FF FF FF FF 04 00 04 00 10 00 00 00 00 00 00 00 00 00 00 00 02 00 00 00 99 00 "
              "00 00");
}

TEST_F(WfmgrSim, BadRequestArgumentsAreRefusedAtStart) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"--info-read", "1", "0"},
                                               {"--info-read", "1", "0", "40922"},
                                               {"--modify", "1", "0", "0g"},
                                               {"--confirm-modify", "1", "0", "@/no/such/file"},
                                               {"--amt-read", "x", "1"}}) {
        start(args);
        int status = -1;
        ASSERT_EQ(waitpid(pid_, &status, 0), pid_);
        pid_ = -1;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << args[0] << " " << status;
    }
}

}  // namespace
