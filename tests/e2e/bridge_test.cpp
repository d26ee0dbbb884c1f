// The bridge between the PC line and wfmgr, over a real pseudo-terminal and a
// real TCP socket. Expected bytes are written out literally.
#include <cstring>
#include <string>

#include "phone_test.hpp"

namespace e2e {
namespace {

using sandbox::Bytes;

// The info transfer request of kFrame100: total_len 32, wf_id all ones, body_len 12, then
// cmd, body and the frame's CRC.
const Bytes kRequest100 =
    hex("20 00 00 00 FF FF FF FF FF FF FF FF 03 00 04 00 0C 00 00 00 64 00 00 00 01 02 03 04 EB BD B0 AD");
// An info transfer confirm whose body is response 18 with result word 0, and
// the frame the PC must get for it (the worked frame of response 18).
const Bytes kConfirm18 = hex("1C 00 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 08 00 00 00 12 00 00 00 00 00 00 00");
const Bytes kFrame18 = hex("AA BB CC DD 10 00 00 00 02 00 00 00 12 00 00 00 00 00 00 00 DA BD 91 C9");

class Bridge : public PhoneTest {
protected:
    void SetUp() override {
        PhoneTest::SetUp();
        if (IsSkipped()) return;
        daemon_ = launch_with_pc();
        ASSERT_NE(daemon_, nullptr);
    }

    sandbox::Daemon* daemon_ = nullptr;
};

// Each frame the PC sends is acknowledged at once and reaches wfmgr as its
// exact request: total_len grown to a multiple of 4 with zero bytes, a wrong
// CRC carried unchanged, two frames in one write both forwarded.
TEST_F(Bridge, ForwardedCommandsGoToWfmgrAsTheirExactRequestsAfterThePreResponse) {
    pc_sends(kFrame100);
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(kRequest100);
    // Body of 3 bytes: a payload of 11, total_len 31 + 3 = 34, three zero bytes behind.
    pc_sends(hex("AA BB CC DD 0F 00 00 00 02 00 00 00 64 00 00 00 AA BB CC 12 34 56 78"));
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(hex("22 00 00 00 FF FF FF FF FF FF FF FF 03 00 04 00 0B 00 00 00 "
                          "64 00 00 00 AA BB CC 12 34 56 78 00 00 00"));
    pc_sends(concat({kFrame100, kFrame100}));
    expect_pc_gets(concat({kPreResponse, kPreResponse}));
    expect_wfmgr_gets(kRequest100);
    expect_wfmgr_gets(kRequest100);
}

TEST_F(Bridge, FrameCutAtEveryByteWithGarbageAheadIsAssembledOnce) {
    Bytes stream = concat({hex("00 11 AA 22"), kFrame100});
    for (uint8_t b : stream) {
        pc_sends({b});
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(kRequest100);
    expect_pc_quiet();
    EXPECT_EQ(daemon_->count_log("first char not match:11"), 1u);
}

// Each pause is far longer than the agent's look at the ring while a message
// is under way, and nothing may go out before the last piece is in.
TEST_F(Bridge, PiecesOfAFrameThatComeLongAfterEachOtherMakeOneFrame) {
    const Bytes pieces[] = {hex("AA BB"), hex("CC DD 10 00 00 00 02 00"), hex("00 00 64 00 00 00 01 02"),
                            hex("03 04 EB BD B0 AD")};
    for (const Bytes& piece : pieces) {
        EXPECT_TRUE(pc_->quiet_for(std::chrono::milliseconds(150)));
        pc_sends(piece);
    }
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(kRequest100);
}

// The same from wfmgr, whole and then in pieces long apart.
TEST_F(Bridge, ConfirmFromWfmgrReachesThePcAsAFreshFrameWithAFreshCrc) {
    wfmgr_sends(kConfirm18);
    expect_pc_gets(kFrame18);
    const Bytes pieces[] = {hex("1C 00 00 00 07 00 00 00"), hex("FF FF FF FF 04 00 04 00 08 00 00 00 12"),
                            hex("00 00 00 00 00 00 00")};
    for (const Bytes& piece : pieces) {
        EXPECT_TRUE(pc_->quiet_for(std::chrono::milliseconds(150)));
        wfmgr_sends(piece);
    }
    expect_pc_gets(kFrame18);
}

TEST_F(Bridge, CommandNumbersUpTo65535AreForwardedAndAboveAreOnlyAcknowledged) {
    pc_sends(hex("AA BB CC DD 0C 00 00 00 02 00 00 00 00 00 01 00 00 00 00 00"));  // 65536
    expect_pc_gets(kPreResponse);
    expect_wfmgr_quiet();
    EXPECT_TRUE(daemon_->wait_for_log("m_msg_cmd(65536) is not valid.", kWait));

    pc_sends(hex("AA BB CC DD 0C 00 00 00 02 00 00 00 FF FF 00 00 00 00 00 00"));  // 65535
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(
        hex("1C 00 00 00 FF FF FF FF FF FF FF FF 03 00 04 00 08 00 00 00 FF FF 00 00 00 00 00 00"));
}

TEST_F(Bridge, LyingFrameLengthsCostOnlyTheirOwnFrame) {
    // frame_len far beyond the assembly buffer, then one below the minimum,
    // each followed at once by a good frame that must still be answered.
    pc_sends(concat({hex("AA BB CC DD FF FF FF 7F 02 00 00 00 05 00 00 00"), kFrame100}));
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(kRequest100);
    pc_sends(concat({hex("AA BB CC DD 04 00 00 00 02 00 00 00 06 00 00 00"), kFrame100}));
    expect_pc_gets(kPreResponse);
    expect_wfmgr_gets(kRequest100);
    EXPECT_TRUE(daemon_->wait_for_log("frame_len:2147483647 out of range", kWait));
    EXPECT_TRUE(daemon_->wait_for_log("frame_len:4 out of range", kWait));
}

TEST_F(Bridge, OverlongWfmgrMessageIsSkippedAndTheLinkStaysInStep) {
    Bytes big = hex("50 C3 00 00 07 00 00 00 FF FF FF FF 09 00 04 00 00 00 00 00");  // total_len 50000
    big.resize(50000, 0xAB);
    wfmgr_sends(concat({big, kConfirm18}));
    expect_pc_gets(kFrame18);
    EXPECT_TRUE(daemon_->wait_for_log("total_len:50000 above 40960", kWait));
}

TEST_F(Bridge, ConfirmsThatCannotBeFramedSafelyNeverReachThePc) {
    // An empty body; a body_len beyond the message; a body for the PC larger
    // than a frame the store can hold; a file read request (word 153 at 32).
    wfmgr_sends(hex("14 00 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 00 00 00 00"));
    wfmgr_sends(hex("1C 00 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 00 01 00 00 12 00 00 00 00 00 00 00"));
    Bytes large = hex("24 10 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 10 10 00 00");  // body 4112
    large.resize(20 + 4112, 0x01);
    wfmgr_sends(large);
    wfmgr_sends(hex("24 00 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 10 00 00 00 "
                    "12 00 00 00 00 00 00 00 00 00 00 00 99 00 00 00"));
    wfmgr_sends(kConfirm18);  // the link is still in step
    expect_pc_gets(kFrame18);
    expect_pc_quiet();
    EXPECT_EQ(daemon_->count_log("treat_wfmgr_amt_info_trans_cnf_msg ,body_len:"), 5u);
}

TEST_F(Bridge, WfmgrMessageShorterThanItsHeaderEndsTheService) {
    wfmgr_sends(hex("0A 00 00 00 07 00 00 00 FF FF FF FF 04 00 04 00 00 00 00 00"));
    EXPECT_EQ(daemon_->wait_exit(kWait), 0);
    EXPECT_EQ(daemon_->count_log("will exit"), 1u);
    EXPECT_TRUE(daemon_->wait_for_log("below the header size", kWait));
}

}  // namespace
}  // namespace e2e
