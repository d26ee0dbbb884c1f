// The search for AA BB CC DD in the PC byte stream. A byte that breaks a match
// is consumed, so it never starts the next one: some heads are lost, and each
// byte of garbage costs exactly one log line.
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

#include "log_capture.hpp"
#include "process/pub_util.hpp"
#include "protocol/head_search.hpp"

namespace {

// Feeds the bytes through one search and counts the heads found.
int heads_found(const std::vector<uint8_t>& stream) {
    HeadSearch search;
    int found = 0;
    for (uint8_t b : stream) {
        if (head_search_step(&search, b) == HeadSearchResult::kFound) ++found;
    }
    return found;
}

// A plain head is found and the search starts over; a byte that breaks a
// match cannot start the next one.
TEST(HeadSearch, HeadsAreFoundOneAfterTheOtherAndAByteThatBreaksAMatchStartsNone) {
    EXPECT_EQ(heads_found({0xAA, 0xBB, 0xCC, 0xDD, 0xAA, 0xBB, 0xCC, 0xDD}), 2);
    EXPECT_EQ(heads_found({0xAA, 0xBB, 0xCC, 0xAA, 0xBB, 0xCC, 0xDD}), 0);
    EXPECT_EQ(heads_found({0xAA, 0xBB, 0xAA, 0xBB, 0xCC, 0xDD}), 0);
    EXPECT_EQ(heads_found({0xAA, 0xAA, 0xBB, 0xCC, 0xDD}), 0);
    // A breaking byte that is no AA leaves the following AA free to start.
    EXPECT_EQ(heads_found({0xAA, 0x00, 0xAA, 0xBB, 0xCC, 0xDD}), 1);
}

TEST(HeadSearch, EachByteOfGarbageCostsOneNotMatchLineAndMatchLinesAreVerboseOnly) {
    LogCapture log;
    // Five bytes that match nothing, then one mismatch in each later state.
    const std::vector<uint8_t> stream = {0x01, 0x02, 0x03, 0xFF, 0xDD,  // state 0
                                         0xAA, 0x10,                    // state 1
                                         0xAA, 0xBB, 0x20,              // state 2
                                         0xAA, 0xBB, 0xCC, 0x30,        // state 3
                                         0xAA, 0xBB, 0xCC, 0xDD};
    EXPECT_EQ(heads_found(stream), 1);
    EXPECT_EQ(log.count("not match"), 8u);
    EXPECT_TRUE(log.contains("first char not match:ff\n"));
    EXPECT_TRUE(log.contains("second char not match:10\n"));
    EXPECT_TRUE(log.contains("third char not match:20\n"));
    EXPECT_TRUE(log.contains("fourth char not match:30\n"));
    EXPECT_FALSE(log.contains("char match:"));  // match lines are verbose only

    OUTPUT_MORE_LOG.store(1);
    EXPECT_EQ(heads_found({0xAA, 0xBB, 0xCC, 0xDD}), 1);
    OUTPUT_MORE_LOG.store(0);
    EXPECT_TRUE(log.contains("first char match:aa\n"));
    EXPECT_TRUE(log.contains("second char match:bb\n"));
    EXPECT_TRUE(log.contains("third char match:cc\n"));
    EXPECT_TRUE(log.contains("fourth char match:dd\n"));
    EXPECT_EQ(log.count("not match"), 8u);
}

}  // namespace
