#include <algorithm>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "services/rftab_list.hpp"

namespace {

void put_row(uint8_t* rows, size_t i, uint16_t type, const char* name) {
    uint8_t* r = rows + i * kRftabRowSize;
    memset(r, 0, kRftabRowSize);
    r[0] = static_cast<uint8_t>(type);
    r[1] = static_cast<uint8_t>(type >> 8);
    memcpy(r + kRftabNameOffset, name, std::min(strlen(name), kRftabNameSize - 1));
}

TEST(RfTableList, CountFollowsWholeRowsAndFirstMatchWins) {
    uint8_t rows[kRftabListSize] = {};
    put_row(rows, 0, 5, "five_a.bin");
    put_row(rows, 1, 5, "five_b.bin");
    EXPECT_EQ(rftab_list_replace(rows, 143), 1u);  // 71 bytes of a second row do not count
    char name[kRftabNameSize];
    EXPECT_TRUE(rftab_list_find(5, name));
    EXPECT_STREQ(name, "five_a.bin");
    EXPECT_EQ(rftab_list_replace(rows, 144), 2u);
    EXPECT_FALSE(rftab_list_find(5 + 65536, name));  // only the low 16 bits are stored
    EXPECT_EQ(rftab_list_replace(rows, 0), 0u);
    EXPECT_FALSE(rftab_list_find(5, name));
    // A full list finds its last row.
    for (size_t i = 0; i < kRftabMaxRows; ++i) put_row(rows, i, static_cast<uint16_t>(100 + i), ("t" + std::to_string(i)).c_str());
    EXPECT_EQ(rftab_list_replace(rows, kRftabListSize), 30u);
    EXPECT_TRUE(rftab_list_find(129, name));
    EXPECT_STREQ(name, "t29");
}

// A refill racing a lookup on another thread: every name found belongs to one
// list or the other, never a mix of the two.
TEST(RfTableList, LookupDuringRefillNeverSeesAHalfReplacedRow) {
    static uint8_t a[kRftabListSize], b[kRftabListSize];
    for (size_t i = 0; i < kRftabMaxRows; ++i) {
        put_row(a, i, 1, "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa");
        put_row(b, i, 1, "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb");
    }
    rftab_list_replace(a, kRftabListSize);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; !stop; ++i) rftab_list_replace(i % 2 ? a : b, kRftabListSize);
    });
    int mixed = 0;
    for (int i = 0; i < 20000; ++i) {
        char name[kRftabNameSize];
        ASSERT_TRUE(rftab_list_find(1, name));
        std::string s(name);
        if (s.find_first_not_of(s[0]) != std::string::npos) ++mixed;
    }
    stop = true;
    writer.join();
    EXPECT_EQ(mixed, 0);
}

}  // namespace
