// ovta-pc as the station's PC runs it: the real program on a pseudo-terminal,
// with the test playing the agent on the other end. The test reads the frame
// that ovta-pc sends and answers with literal frames, worked out by hand from
// the answer layouts, and checks what ovta-pc prints and its exit status.
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <optional>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "sandbox_io.hpp"
#include "tools/lib/hex_text.hpp"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

Bytes hex(const char* text) { return *tools::parse_hex(text); }

const Bytes kHandshake = hex("AA BB CC DD 7F");
const Bytes kPreResponse = hex("AA BB CC DD 08 00 00 00 02 02 00 00 76 4A EE 1D");

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

struct PcRun {
    int status = -1;
    std::string out;
    std::string err;
};

// ovta-pc on the slave of a pseudo-terminal whose master the test holds.
class OvtaPc : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(openpty(&master_, &slave_, nullptr, nullptr, nullptr), 0);
        fcntl(master_, F_SETFD, FD_CLOEXEC);
        fcntl(slave_, F_SETFD, FD_CLOEXEC);
        char dir[] = "/tmp/ovta_pc_testXXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override {
        if (pid_ > 0) finish();
        close(master_);
        close(slave_);
        EXPECT_EQ(system(("rm -rf " + dir_).c_str()), 0);
    }

    // Starts ovta-pc with `args` behind the device and time-out options.
    void start(const std::vector<std::string>& args, const char* timeout_ms = "3000") {
        std::vector<std::string> text = {OVTA_BINARY_DIR "/ovta-pc", "--device", ttyname(slave_), "--timeout",
                                         timeout_ms};
        text.insert(text.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& a : text) argv.push_back(a.data());
        argv.push_back(nullptr);
        int out[2];
        int err[2];
        ASSERT_EQ(pipe(out), 0);
        ASSERT_EQ(pipe(err), 0);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        out_fd_ = out[0];
        err_fd_ = err[0];
    }

    // Takes the frame that ovta-pc sent off the line.
    void expect_request(const Bytes& frame) {
        auto got = sandbox::read_exact(master_, frame.size(), 5000ms);
        ASSERT_TRUE(got.has_value()) << "ovta-pc sent fewer than " << frame.size() << " bytes";
        EXPECT_EQ(tools::to_hex(*got), tools::to_hex(frame));
    }
    void agent_sends(const Bytes& bytes) { ASSERT_TRUE(sandbox::write_all(master_, bytes, 5000ms)); }

    // Waits for ovta-pc to end and collects what it printed.
    PcRun finish() {
        PcRun run;
        run.out = drain(out_fd_);
        run.err = drain(err_fd_);
        int status = 0;
        if (waitpid(pid_, &status, 0) == pid_ && WIFEXITED(status)) run.status = WEXITSTATUS(status);
        pid_ = -1;
        return run;
    }

    // One command: its request, the agent's bytes, the end.
    PcRun exchange(const std::vector<std::string>& args, const Bytes& request, const Bytes& reply,
                 const char* timeout_ms = "3000") {
        start(args, timeout_ms);
        expect_request(request);
        agent_sends(reply);
        return finish();
    }

    std::string file(const std::string& name) const {
        std::ifstream in(dir_ + "/" + name, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }

    std::string dir_;

private:
    static std::string drain(int fd) {
        std::string text;
        char buf[4096];
        for (;;) {
            ssize_t n = read(fd, buf, sizeof(buf));
            if (n > 0) {
                text.append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                break;
            }
        }
        close(fd);
        return text;
    }

    int master_ = -1;
    int slave_ = -1;
    pid_t pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
};

// Command 45, module 1.
const Bytes kVersion1 = hex("AA BB CC DD 10 00 00 00 02 00 00 00 2D 00 00 00 01 00 00 00 98 2B 36 6E");
// Response 46: module 1, version "0".
const Bytes kAnswer46 = hex("AA BB CC DD 15 00 00 00 02 00 00 00 2E 00 00 00 00 00 00 00 01 00 00 00 30 AA A7 BE E3");
// Response 101 with body 01 02 03 04, an answer of wfmgr to an earlier command.
const Bytes kFrame101 = hex("AA BB CC DD 10 00 00 00 02 00 00 00 65 00 00 00 01 02 03 04 BA F8 D9 D7");

TEST_F(OvtaPc, AnswerIsFoundPastTheHandshakeAndAFrameOfAnotherNumber) {
    PcRun r = exchange({"version", "1"}, kVersion1, join({kHandshake, kHandshake, kPreResponse, kFrame101, kAnswer46}));
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("other frame, not the answer: cmd 101 frame_len 16"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("version: 0\n"), std::string::npos) << r.out;
}

TEST_F(OvtaPc, ExitStatusSaysWhetherTheAgentAcceptedRefusedOrDidNotAnswer) {
    // Command 65; response 66 for a missing file.
    const Bytes read_date = hex("AA BB CC DD 0C 00 00 00 02 00 00 00 41 00 00 00 9A 42 09 3E");
    PcRun refused = exchange({"date", "get"}, read_date,
                           join({kPreResponse, hex("AA BB CC DD 1C 00 00 00 02 00 00 00 42 00 00 00 0A 00 00 00 "
                                                   "00 00 00 00 00 00 00 00 00 00 00 00 81 E8 47 DC")}));
    EXPECT_EQ(refused.status, 4);
    EXPECT_EQ(refused.out, "production date: failed (result 10)\n");

    // Command 89 for station 64; response 90 without a line for it.
    PcRun missing = exchange({"result", "get", "64"},
                           hex("AA BB CC DD 10 00 00 00 02 00 00 00 59 00 00 00 40 00 00 00 72 03 5B 5E"),
                           join({kPreResponse, hex("AA BB CC DD 14 00 00 00 02 00 00 00 5A 00 00 00 03 00 00 00 "
                                                   "00 00 00 00 B4 A5 F7 AF")}));
    EXPECT_EQ(missing.status, 5);
    EXPECT_EQ(missing.out, "station 64: no such station (result 3)\n");

    // An echo of the request under the response number is no answer of the
    // agent's: a date answer is 36 bytes.
    PcRun echo = exchange({"date", "get"}, read_date,
                        join({kPreResponse, hex("AA BB CC DD 0C 00 00 00 02 00 00 00 42 00 00 00 53 1E 67 CA")}));
    EXPECT_EQ(echo.status, 6) << echo.out;

    // The version answer with "1" for "0" under the old CRC.
    Bytes damaged = kAnswer46;
    damaged[24] = '1';
    PcRun bad_crc = exchange({"version", "1"}, kVersion1, join({kPreResponse, damaged}));
    EXPECT_EQ(bad_crc.status, 6);
    EXPECT_NE(bad_crc.out.find("answer 46 with a bad CRC"), std::string::npos) << bad_crc.out;

    PcRun pre_only = exchange({"date", "get"}, read_date, kPreResponse, "300");
    EXPECT_EQ(pre_only.status, 1);
    EXPECT_EQ(pre_only.out, "production date: no answer behind the pre-response within 300 ms\n");

    PcRun nothing = exchange({"date", "get"}, read_date, kHandshake, "300");
    EXPECT_EQ(nothing.status, 2);
}

TEST_F(OvtaPc, UsageErrorsEndBeforeTheLineIsTouched) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"result", "get"},
                                               {"date", "set"},
                                               {"rf", "read", "1", "0", "16", "--in", "x"},
                                               {"rf", "write", "1", "0", "4", "--hex", "0102"},
                                               {"rf", "read", "1", "4294967295", "2"},
                                               {"enter-amt", ""},
                                               {"result", "set", "1", "1", "line\r\nbreak"},
                                               {"card", "--slice", "0"},
                                               {"frobnicate"}}) {
        start(args);
        PcRun r = finish();
        EXPECT_EQ(r.status, 3) << args[0] << ": " << r.err;
        EXPECT_NE(r.err.find("ovta-pc: "), std::string::npos);
    }
    start({"--help"});
    PcRun help = finish();
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Exit status: 0 accepted"), std::string::npos) << help.out;
}

// Command 61 for table 1: bytes 0 to 3, then 4 and 5.
const Bytes kReadSlice1 =
    hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 01 00 00 00 00 00 00 00 04 00 00 00 BD 5A 92 60");
const Bytes kReadSlice2 =
    hex("AA BB CC DD 18 00 00 00 02 00 00 00 3D 00 00 00 01 00 00 00 04 00 00 00 02 00 00 00 CC 7A 72 F1");
// Response 62 with 01 02 03 04.
const Bytes kData1234 = hex("AA BB CC DD 14 00 00 00 02 00 00 00 3E 00 00 00 00 00 00 00 01 02 03 04 4C 3B D4 CB");

// The answer to the second slice decides what the file holds: every byte, the
// bytes that came before a refusal, or the old file when no answer came. No
// temporary file is left behind.
TEST_F(OvtaPc, RfReadInSlicesKeepsEveryByteThatCameOrLeavesTheOldFile) {
    struct Case {
        Bytes second_answer;
        const char* timeout_ms;
        int status;
        std::string file;
        const char* says;
    };
    const Case cases[] = {
        // Response 62 with 05 06.
        {hex("AA BB CC DD 12 00 00 00 02 00 00 00 3E 00 00 00 00 00 00 00 05 06 4D C0 C6 C5"), "3000", 0,
         std::string("\x01\x02\x03\x04\x05\x06", 6), "rf read: 6 bytes in slices of 4"},
        // Response 62, result 10, the one byte 05 that the file still held.
        {hex("AA BB CC DD 11 00 00 00 02 00 00 00 3E 00 00 00 0A 00 00 00 05 73 38 D0 D2"), "3000", 4,
         std::string("\x01\x02\x03\x04\x05", 5),
         "rf read: stopped after 5 of 6 bytes; rf read: 1 of 2 bytes, failed (result 10)"},
        {{}, "300", 1, "old table", "table.bin left as it was"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.says);
        std::ofstream(dir_ + "/table.bin") << "old table";
        start({"rf", "read", "1", "0", "6", "--slice", "4", "--out", dir_ + "/table.bin"}, c.timeout_ms);
        expect_request(kReadSlice1);
        agent_sends(join({kPreResponse, kData1234}));
        expect_request(kReadSlice2);
        agent_sends(join({kPreResponse, c.second_answer}));
        PcRun r = finish();
        EXPECT_EQ(r.status, c.status) << r.out << r.err;
        EXPECT_EQ(file("table.bin"), c.file);
        EXPECT_NE(r.out.find(c.says), std::string::npos) << r.out;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_), {}), 1) << "a temporary file was left";
    }
}

TEST_F(OvtaPc, RfWriteSendsTheDataAndReportsARefusal) {
    // Command 63: table 1, offset 16, the two bytes AB CD; response 64 refused.
    PcRun r = exchange(
        {"rf", "write", "1", "16", "2", "--hex", "ABCD"},
        hex("AA BB CC DD 1A 00 00 00 02 00 00 00 3F 00 00 00 01 00 00 00 10 00 00 00 02 00 00 00 AB CD 6F FD 39 C1"),
        join({kPreResponse, hex("AA BB CC DD 10 00 00 00 02 00 00 00 40 00 00 00 0A 00 00 00 62 20 1C 2E")}));
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, "rf write: failed (result 10)\n");
}

// Nobody reads the line: a slice of 32 KiB does not fit the terminal's
// buffer, and ovta-pc gives up at its time-out instead of hanging.
TEST_F(OvtaPc, LineThatTakesNoBytesEndsTheCommandAtTheTimeOut) {
    std::ofstream(dir_ + "/big.bin") << std::string(32768, 'x');
    start({"rf", "write", "1", "0", "32768", "--in", dir_ + "/big.bin"}, "300");
    PcRun r = finish();
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    EXPECT_NE(r.out.find("rf write: the command could not be written"), std::string::npos) << r.out;
}

}  // namespace
