// PC frames in the agent: the building of a response and the wrapping of a
// payload from wfmgr into a frame. Expected bytes are the worked frames.
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "log_capture.hpp"
#include "process/pub_util.hpp"
#include "protocol/pc_frame.hpp"

namespace {

std::vector<uint8_t> head_of(const uint8_t* p, size_t n) { return std::vector<uint8_t>(p, p + n); }

TEST(ResponseBuilding, ResultOnlyResponseIsTheWorkedFrameAndTheHeaderNeedsSixteenBytes) {
    const uint8_t expected[24] = {0xAA, 0xBB, 0xCC, 0xDD, 0x10, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,
                                  0x12, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xDA, 0xBD, 0x91, 0xC9};
    uint8_t buf[32];
    memset(buf, 0x5A, sizeof(buf));  // stale bytes must not reach the frame
    ASSERT_EQ(add_amt_cmd_general_msg(buf, sizeof(buf), 18), 0);
    memset(buf + 16, 0, 4);  // result word 0; frame_len 16 is already right
    ASSERT_EQ(add_amt_crc(buf, 20), 0);
    EXPECT_EQ(head_of(buf, 24), head_of(expected, 24));
    EXPECT_EQ(buf[24], 0x5A);  // nothing written behind the CRC

    // The header needs sixteen bytes of buffer.
    LogCapture log;
    memset(buf, 0x77, sizeof(buf));
    EXPECT_EQ(add_amt_cmd_general_msg(buf, 15, 18), kRetBadSize);
    EXPECT_EQ(buf[0], 0x77);  // refused: untouched
    EXPECT_EQ(add_amt_cmd_general_msg(nullptr, 16, 18), kRetBadSize);
    EXPECT_EQ(log.count("add_amt_cmd_general_msg Invalid parameter ."), 2u);
    EXPECT_EQ(add_amt_cmd_general_msg(buf, 16, 18), 0);
    EXPECT_EQ(add_amt_crc(nullptr, 20), kRetInvalidParam);
}

// A payload from wfmgr gets the head and the CRC; a len of 0 takes the length
// from the payload's own first two bytes.
TEST(PayloadWrapping, PayloadsBecomeTheWorkedFramesAndAnEmptyOneIsRefused) {
    struct Case {
        uint32_t len;
        std::vector<uint8_t> payload;
        std::vector<uint8_t> frame;
    };
    const Case cases[] = {
        {4, {0x2E, 0x00, 0x00, 0x00},  // cmd 46
         {0xAA, 0xBB, 0xCC, 0xDD, 0x0C, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x2E, 0x00, 0x00, 0x00, 0xF4, 0x52,
          0xBC, 0x91}},
        {0, {0x06, 0x00, 0x11, 0x22, 0x33, 0x44},
         {0xAA, 0xBB, 0xCC, 0xDD, 0x0E, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00,
          0x00, 0x06, 0x00, 0x11, 0x22, 0x33, 0x44, 0xDB, 0x92, 0x33, 0xC8}},
    };
    for (const Case& c : cases) {
        auto store = std::make_unique<AmtPayloadStore>();
        store->len = c.len;
        memcpy(store->data, c.payload.data(), c.payload.size());
        ASSERT_EQ(add_amt_head(store.get()), 0);
        EXPECT_EQ(head_of(store->data, store->len), c.frame);
    }

    LogCapture log;
    auto empty = std::make_unique<AmtPayloadStore>();
    empty->len = 0;
    empty->data[0] = 0x00;
    empty->data[1] = 0x00;
    empty->data[2] = 0x99;
    EXPECT_EQ(add_amt_head(empty.get()), kRetInvalidParam);
    EXPECT_EQ(empty->len, 0u);
    EXPECT_EQ(empty->data[2], 0x99);  // no frame built
    EXPECT_EQ(add_amt_head(nullptr), kRetInvalidParam);
    EXPECT_EQ(log.count("): 1\n"), 2u);  // the bare "%d" line
}

TEST(PayloadWrapping, PayloadThatCannotFitTheStoreIsRefusedUntouched) {
    auto store = std::make_unique<AmtPayloadStore>();
    for (size_t i = 0; i < sizeof(store->data); ++i) store->data[i] = static_cast<uint8_t>(i * 13);
    const auto before = head_of(store->data, sizeof(store->data));

    store->len = 4081;
    EXPECT_EQ(add_amt_head(store.get()), kRetInvalidParam);
    EXPECT_EQ(store->len, 4081u);
    EXPECT_EQ(head_of(store->data, sizeof(store->data)), before);

    // The same through a length taken from the data: 0x1000 = 4096.
    store->len = 0;
    store->data[0] = 0x00;
    store->data[1] = 0x10;
    const auto before_implicit = head_of(store->data, sizeof(store->data));
    EXPECT_EQ(add_amt_head(store.get()), kRetInvalidParam);
    EXPECT_EQ(store->len, 0u);
    EXPECT_EQ(head_of(store->data, sizeof(store->data)), before_implicit);

    // 4080 bytes are the most that fit: the frame then fills the store.
    store->len = 4080;
    ASSERT_EQ(add_amt_head(store.get()), 0);
    EXPECT_EQ(store->len, 4096u);
    EXPECT_EQ(store->data[4], 0xF8);  // frame_len 4088
    EXPECT_EQ(store->data[5], 0x0F);
    EXPECT_EQ(store->data[12], before[0]);  // the payload moved 12 bytes up
    EXPECT_EQ(store->data[4091], before[4079]);
}

}  // namespace
