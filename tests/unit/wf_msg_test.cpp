// wfmgr messages: the header and the total-length rule refuse buffers too
// small for them and leave them untouched. The header bytes and the rule
// itself (total_len grown by its remainder modulo 4) are checked on the wire
// by the e2e file-service tests.
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>

#include "log_capture.hpp"
#include "process/pub_util.hpp"
#include "protocol/wf_msg.hpp"

namespace {

TEST(WfMessage, BuffersTooSmallForTheHeaderOrTheLengthAreRefusedUntouched) {
    LogCapture log;
    uint8_t buf[20];
    memset(buf, 0x33, sizeof(buf));
    EXPECT_EQ(add_wf_general_msg(buf, 19, 0x40001), kRetBadSize);
    EXPECT_EQ(add_wf_general_msg(nullptr, 20, 0x40001), kRetBadSize);
    uint32_t r = 99;
    EXPECT_EQ(modify_total_len_by_mod4(buf, 19, &r), kRetBadSize);
    EXPECT_EQ(modify_total_len_by_mod4(nullptr, 20, &r), kRetBadSize);
    EXPECT_EQ(r, 99u);
    for (uint8_t b : buf) EXPECT_EQ(b, 0x33);
    EXPECT_EQ(log.count("add_wf_general_msg Invalid parameter ."), 2u);
    EXPECT_EQ(log.count("modify_total_len_by_mod4 Invalid parameter ."), 2u);
}

}  // namespace
