// How wfmgr-sim reads the agent's confirms of its file requests. The e2e test
// of wfmgr-sim checks its requests and a read confirm on the wire; here are
// the confirms that are easy to misread. Every message is written out by hand
// from the layouts: total_len, wf_id, FF FF FF FF, msg_id, body_len, body.
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

#include "pc/lib/hex_text.hpp"
#include "tools/lib/wf_messages.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const char* text) { return *tools::parse_hex(text); }

TEST(WfFileConfirms, DataGoesByReadCountAndForwardedCommandsAreNoConfirms) {
    // The agent's answer to a 153 read: 0x40003 whose first body word is 154.
    // Nothing was read.
    auto amt = tools::decode_file_confirm(hex("24 00 00 00 07 00 00 00 FF FF FF FF 03 00 04 00 10 00 00 00 "
                                              "9A 00 00 00 04 00 00 00 08 00 00 00 00 00 00 00"));
    ASSERT_TRUE(amt.has_value());
    EXPECT_TRUE(amt->is_read());
    EXPECT_EQ(amt->offset, 4u);
    EXPECT_EQ(amt->len, 8u);
    EXPECT_TRUE(amt->data.empty());

    // readed_len 5 in a message that holds 4 bytes of data.
    auto cut = tools::decode_file_confirm(hex("28 00 00 00 07 00 00 00 FF FF FF FF 08 00 04 00 15 00 00 00 "
                                              "01 00 00 00 00 00 00 00 05 00 00 00 05 00 00 00 41 42 43 00"));
    ASSERT_TRUE(cut.has_value());
    EXPECT_EQ(cut->data, hex("41 42 43 00"));
    EXPECT_TRUE(cut->data_cut());

    auto modify = tools::decode_file_confirm(hex("24 00 00 00 07 00 00 00 FF FF FF FF 06 00 04 00 10 00 00 00 "
                                                 "01 00 00 00 00 00 00 00 06 00 00 00 06 00 00 00"));
    ASSERT_TRUE(modify.has_value());
    EXPECT_FALSE(modify->is_read());
    EXPECT_EQ(modify->count, 6u);

    // A forwarded PC command 100 shares the id 0x40003 with the 154 confirm.
    EXPECT_FALSE(tools::decode_file_confirm(hex("20 00 00 00 FF FF FF FF FF FF FF FF 03 00 04 00 0C 00 00 00 "
                                                "64 00 00 00 01 02 03 04 EB BD B0 AD"))
                     .has_value());
    // Too short for the fields of a confirm.
    EXPECT_FALSE(tools::decode_file_confirm(hex("14 00 00 00 07 00 00 00 FF FF FF FF 06 00 04 00 00 00 00 00"))
                     .has_value());
}

}  // namespace
