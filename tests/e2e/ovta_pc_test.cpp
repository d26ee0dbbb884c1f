// ovta-pc as the station's PC runs it: the real program in the phone on its
// serial port, with the test playing the agent on the other end. The test
// reads the frame that ovta-pc sends and answers with literal frames, worked
// out by hand from the answer layouts, and checks what ovta-pc prints and its
// exit status.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "phone_test.hpp"

namespace e2e {
namespace {

using sandbox::Bytes;

struct PcRun {
    int status = -1;
    std::string out;
    std::string err;
};

class OvtaPc : public PhoneTest {
   protected:
    void SetUp() override {
        PhoneTest::SetUp();
        if (IsSkipped()) return;
        ASSERT_NE(make_phone(), nullptr);
        pc_ = std::make_unique<sandbox::PcLine>(phone_->pc_master());
    }

    // Starts ovta-pc with `args` on the phone's /dev/ttyGS3, its default.
    void start(const std::vector<std::string>& args, const char* timeout_ms = "3000") {
        std::vector<std::string> all = {"--timeout", timeout_ms};
        all.insert(all.end(), args.begin(), args.end());
        std::string why;
        auto tool = sandbox::Daemon::start(*phone_, OVTA_BINARY_DIR "/ovta-pc", all, &why);
        ASSERT_NE(tool, nullptr) << why;
        daemons_.push_back(std::move(tool));
    }

    // Waits for ovta-pc to end and collects what it printed.
    PcRun finish() {
        sandbox::Daemon& tool = *daemons_.back();
        PcRun run;
        run.status = tool.wait_exit(kWait).value_or(-1);
        run.out = tool.stdout_text();
        for (const std::string& line : tool.log_lines()) run.err += line + "\n";
        return run;
    }

    // One command: its request, the agent's bytes, the end.
    PcRun exchange(const std::vector<std::string>& args, const Bytes& request, const Bytes& reply,
                   const char* timeout_ms = "3000") {
        start(args, timeout_ms);
        expect_pc_gets(request);
        pc_sends(reply);
        return finish();
    }
};

// Command 45, module 1.
const Bytes kVersion1 = hex("AA BB CC DD 10 00 00 00 02 00 00 00 2D 00 00 00 01 00 00 00 98 2B 36 6E");
// Response 46: module 1, version "0".
const Bytes kAnswer46 = hex("AA BB CC DD 15 00 00 00 02 00 00 00 2E 00 00 00 00 00 00 00 01 00 00 00 30 AA A7 BE E3");
// Response 101 with body 01 02 03 04, an answer of wfmgr to an earlier command.
const Bytes kFrame101 = hex("AA BB CC DD 10 00 00 00 02 00 00 00 65 00 00 00 01 02 03 04 BA F8 D9 D7");

TEST_F(OvtaPc, ExitStatusSaysWhetherTheAgentAcceptedRefusedOrDidNotAnswer) {
    // The answer is found past handshake offers and a frame of another number.
    PcRun accepted = exchange({"version", "1"}, kVersion1,
                              concat({kHandshakeOffer, kHandshakeOffer, kPreResponse, kFrame101, kAnswer46}));
    EXPECT_EQ(accepted.status, 0) << accepted.out << accepted.err;
    EXPECT_NE(accepted.out.find("other frame, not the answer: cmd 101 frame_len 16"), std::string::npos);
    EXPECT_NE(accepted.out.find("version: 0\n"), std::string::npos) << accepted.out;

    // Command 65; response 66 for a missing file.
    const Bytes read_date = hex("AA BB CC DD 0C 00 00 00 02 00 00 00 41 00 00 00 9A 42 09 3E");
    PcRun refused = exchange({"date", "get"}, read_date,
                             concat({kPreResponse, hex("AA BB CC DD 1C 00 00 00 02 00 00 00 42 00 00 00 0A 00 00 00 "
                                                       "00 00 00 00 00 00 00 00 00 00 00 00 81 E8 47 DC")}));
    EXPECT_EQ(refused.status, 4);
    EXPECT_EQ(refused.out, "production date: failed (result 10)\n");

    // Command 89 for station 64; response 90 without a line for it.
    PcRun missing = exchange({"result", "get", "64"},
                             hex("AA BB CC DD 10 00 00 00 02 00 00 00 59 00 00 00 40 00 00 00 72 03 5B 5E"),
                             concat({kPreResponse, hex("AA BB CC DD 14 00 00 00 02 00 00 00 5A 00 00 00 03 00 00 00 "
                                                       "00 00 00 00 B4 A5 F7 AF")}));
    EXPECT_EQ(missing.status, 5);
    EXPECT_EQ(missing.out, "station 64: no such station (result 3)\n");

    // The version answer with "1" for "0" under the old CRC.
    Bytes damaged = kAnswer46;
    damaged[24] = '1';
    PcRun bad_crc = exchange({"version", "1"}, kVersion1, concat({kPreResponse, damaged}));
    EXPECT_EQ(bad_crc.status, 6);
    EXPECT_NE(bad_crc.out.find("answer 46 with a bad CRC"), std::string::npos) << bad_crc.out;

    PcRun pre_only = exchange({"date", "get"}, read_date, kPreResponse, "300");
    EXPECT_EQ(pre_only.status, 1);
    EXPECT_EQ(pre_only.out, "production date: no answer behind the pre-response within 300 ms\n");

    PcRun nothing = exchange({"date", "get"}, read_date, kHandshakeOffer, "300");
    EXPECT_EQ(nothing.status, 2);
}

TEST_F(OvtaPc, UsageErrorsEndBeforeTheLineIsTouched) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"result", "get"},
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
        ASSERT_TRUE(phone_->write_file("/amt/pc/table.bin", "old table"));
        start({"rf", "read", "1", "0", "6", "--slice", "4", "--out", "/amt/pc/table.bin"}, c.timeout_ms);
        expect_pc_gets(kReadSlice1);
        pc_sends(concat({kPreResponse, kData1234}));
        expect_pc_gets(kReadSlice2);
        pc_sends(concat({kPreResponse, c.second_answer}));
        PcRun r = finish();
        EXPECT_EQ(r.status, c.status) << r.out << r.err;
        EXPECT_EQ(phone_->read_file("/amt/pc/table.bin"), c.file);
        EXPECT_NE(r.out.find(c.says), std::string::npos) << r.out;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(phone_->host_path("/amt/pc")), {}), 1)
            << "a temporary file was left";
    }
}

TEST_F(OvtaPc, RfWriteSendsTheDataAndReportsARefusal) {
    // Command 63: table 1, offset 16, the two bytes AB CD; response 64 refused.
    PcRun r = exchange(
        {"rf", "write", "1", "16", "2", "--hex", "ABCD"},
        hex("AA BB CC DD 1A 00 00 00 02 00 00 00 3F 00 00 00 01 00 00 00 10 00 00 00 02 00 00 00 AB CD 6F FD 39 C1"),
        concat({kPreResponse, hex("AA BB CC DD 10 00 00 00 02 00 00 00 40 00 00 00 0A 00 00 00 62 20 1C 2E")}));
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, "rf write: failed (result 10)\n");
}

// Nobody reads the line: a slice of 32 KiB does not fit the terminal's
// buffer, and ovta-pc gives up at its time-out instead of hanging.
TEST_F(OvtaPc, LineThatTakesNoBytesEndsTheCommandAtTheTimeOut) {
    ASSERT_TRUE(phone_->write_file("/amt/big.bin", std::string(32768, 'x')));
    start({"rf", "write", "1", "0", "32768", "--in", "/amt/big.bin"}, "300");
    PcRun r = finish();
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    EXPECT_NE(r.out.find("rf write: the command could not be written"), std::string::npos) << r.out;
}

// --json: one object per command, the decoded fields by name; a frame of
// another number is kept beside the answer.
TEST_F(OvtaPc, JsonGivesTheDecodedAnswerAsOneObject) {
    PcRun version = exchange({"--json", "version", "1"}, kVersion1, concat({kPreResponse, kFrame101, kAnswer46}));
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out,
              "{\"command\":\"version\",\"other_frames\":[\"AA BB CC DD 10 00 00 00 02 00 00 00 65 00 00 00 01 02 03 "
              "04 BA F8 D9 D7\"],\"outcome\":\"accepted\",\"result_code\":0,\"text\":\"version: 0\",\"value\":\"0\"}\n");

    // Command 89 for station 12; response 90: result 1, description "ok".
    PcRun result = exchange({"--json", "result", "get", "12"},
                            hex("AA BB CC DD 10 00 00 00 02 00 00 00 59 00 00 00 0C 00 00 00 C4 46 03 10"),
                            concat({kPreResponse, hex("AA BB CC DD 16 00 00 00 02 00 00 00 5A 00 00 00 00 00 00 00 "
                                                      "01 00 00 00 6F 6B 7B E5 F7 EE")}));
    EXPECT_EQ(result.out,
              "{\"command\":\"station 12\",\"number\":1,\"outcome\":\"accepted\",\"result_code\":0,"
              "\"text\":\"station 12: result 1, description ok\",\"value\":\"ok\"}\n");

    PcRun rf = exchange({"--json", "rf", "read", "1", "0", "4"}, kReadSlice1, concat({kPreResponse, kData1234}));
    EXPECT_EQ(rf.out, "{\"bytes\":4,\"command\":\"rf read\",\"data\":\"01 02 03 04\",\"outcome\":\"accepted\","
                      "\"text\":\"rf read: 4 bytes\"}\n");

    PcRun nothing = exchange({"--json", "card"}, hex("AA BB CC DD 0C 00 00 00 02 00 00 00 89 00 00 00 7A 54 3C 34"),
                             {}, "200");
    EXPECT_EQ(nothing.status, 2);
    EXPECT_EQ(nothing.out, "{\"command\":\"card\",\"outcome\":\"nothing\",\"text\":\"nothing came\"}\n");
}

}  // namespace
}  // namespace e2e
