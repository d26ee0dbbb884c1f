// wfmgr messages: the header every message starts with, and the total-length
// rule, which grows total_len by its remainder modulo 4 rather than rounding
// it up to the next multiple.
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

#include "log_capture.hpp"
#include "process/pub_util.hpp"
#include "protocol/wf_msg.hpp"

namespace {

void set_total_len(uint8_t* buf, uint32_t v) {
    for (int i = 0; i < 4; ++i) buf[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t total_len(const uint8_t* buf) {
    return static_cast<uint32_t>(buf[0]) | static_cast<uint32_t>(buf[1]) << 8 | static_cast<uint32_t>(buf[2]) << 16 |
           static_cast<uint32_t>(buf[3]) << 24;
}

TEST(WfHeader, HeaderOfAFreshMessage) {
    uint8_t buf[24];
    memset(buf, 0x5A, sizeof(buf));
    ASSERT_EQ(add_wf_general_msg(buf, 20, 0x40003), 0);
    const uint8_t expected[24] = {0x14, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                  0x03, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x5A, 0x5A, 0x5A, 0x5A};
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 24), std::vector<uint8_t>(expected, expected + 24));
}

TEST(WfHeader, BufferBelowTwentyBytesIsRefusedUntouched) {
    LogCapture log;
    uint8_t buf[20];
    memset(buf, 0x33, sizeof(buf));
    EXPECT_EQ(add_wf_general_msg(buf, 19, 0x40001), kRetBadSize);
    EXPECT_EQ(add_wf_general_msg(nullptr, 20, 0x40001), kRetBadSize);
    EXPECT_EQ(buf[0], 0x33);
    EXPECT_EQ(buf[12], 0x33);
    EXPECT_EQ(log.count("add_wf_general_msg Invalid parameter ."), 2u);
}

TEST(WfTotalLength, GrowsByTheRemainderNotToTheNextMultiple) {
    struct Case {
        uint32_t before, remainder, after;
    };
    for (const Case& c : {Case{37, 1, 38}, Case{38, 2, 40}, Case{39, 3, 42}, Case{88, 0, 88}}) {
        uint8_t buf[100] = {};
        ASSERT_EQ(add_wf_general_msg(buf, sizeof(buf), 0x40008), 0);
        set_total_len(buf, c.before);
        uint32_t r = 99;
        ASSERT_EQ(modify_total_len_by_mod4(buf, sizeof(buf), &r), 0) << c.before;
        EXPECT_EQ(total_len(buf), c.after) << c.before;
        EXPECT_EQ(r, c.remainder) << c.before;
    }
}

TEST(WfTotalLength, RefusesBadBuffersAndKeepsTheLength) {
    LogCapture log;
    uint8_t buf[20] = {};
    set_total_len(buf, 39);
    uint32_t r = 99;
    EXPECT_EQ(modify_total_len_by_mod4(buf, 19, &r), kRetBadSize);
    EXPECT_EQ(modify_total_len_by_mod4(nullptr, 20, &r), kRetBadSize);
    EXPECT_EQ(total_len(buf), 39u);
    EXPECT_EQ(r, 99u);
    EXPECT_EQ(log.count("modify_total_len_by_mod4 Invalid parameter ."), 2u);
}

}  // namespace
