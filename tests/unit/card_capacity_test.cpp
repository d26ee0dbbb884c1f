// The figures of the card capacity and the scan of the mount table.
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "services/card_capacity.hpp"

namespace {

uint32_t total_kib(uint64_t blocks, long bsize) {
    struct statfs st {};
    st.f_blocks = blocks;
    st.f_bsize = bsize;
    uint32_t kb[3] = {};
    capacity_from_statfs(st, kb);
    return kb[kCapacityTotal];
}

// Blocks reserved for the superuser count as used; half-KiB blocks lose an
// odd half; a card of 4 TiB or more keeps the low 32 bits of its KiB.
TEST(CardCapacityFigures, FiguresAreKiBOfBlocksFreeToUsersCutTo32Bits) {
    struct statfs st {};
    st.f_blocks = 1u << 18;
    st.f_bfree = 1100;
    st.f_bavail = 1000;
    st.f_bsize = 4096;
    uint32_t kb[3] = {};
    capacity_from_statfs(st, kb);
    EXPECT_EQ(kb[kCapacityTotal], 1048576u);
    EXPECT_EQ(kb[kCapacityUsed], 1048576u - 4000u);
    EXPECT_EQ(kb[kCapacityAvailable], 4000u);

    EXPECT_EQ(total_kib(3, 512), 1u);
    EXPECT_EQ(total_kib(1ull << 30, 4096), 0u);
    EXPECT_EQ(total_kib((1ull << 30) + 1, 4096), 4u);
}

// Whether a mount table of `text` lists `path`.
bool lists(const std::string& text, const char* path) {
    FILE* f = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    bool r = mount_table_lists(f, path);
    fclose(f);
    return r;
}

TEST(CardMountTable, PathAnywhereInALineCountsAsMounted) {
    const char* card = "/storage/sdcard1";
    EXPECT_TRUE(lists("proc /proc proc rw 0 0\ntmpfs /storage/sdcard1 tmpfs rw 0 0\n", card));
    EXPECT_TRUE(lists("tmpfs /storage/sdcard10 tmpfs rw 0 0\n", card));  // a longer path holds it
    EXPECT_TRUE(lists("/storage/sdcard1 /mnt ext4 rw 0 0", card));        // device column, no line end
    EXPECT_FALSE(lists("tmpfs /storage/sdcard tmpfs rw 0 0\n", card));
    EXPECT_FALSE(lists("\n", card));
    // A long line is seen in pieces of 198 bytes.
    const std::string path = card;
    EXPECT_TRUE(lists(std::string(250, 'o') + " " + path + "\n", card));
    EXPECT_FALSE(lists(std::string(190, 'o') + path + "\n", card));  // cut at byte 198, inside the path
    EXPECT_TRUE(lists(std::string(182, 'o') + path + "\n", card));   // ends at byte 198
}

}  // namespace
