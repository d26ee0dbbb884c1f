// What both ends of the serial link compute alike: the frame CRC, and the
// little-endian fields that refuse to reach past their buffer. Runs in every
// build, the Windows one under Wine included.
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

#include "wire/bytes.hpp"
#include "wire/pc_frame_layout.hpp"

namespace {

// The CRC byte by byte as the system defines it: the reflected CRC-32 table,
// a 64-bit accumulator shifted left, the index from bits 24-31, the input and
// then four zero bytes. The fast form must give the very same 64 bits.
uint64_t crc_byte_by_byte(const uint8_t* data, size_t n) {
    uint32_t table[256];
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1u) != 0 ? (c >> 1) ^ 0xEDB88320u : c >> 1;
        table[i] = c;
    }
    uint64_t acc = 0;
    for (size_t i = 0; i < n + 4; ++i) acc = table[(acc >> 24) & 0xFFu] ^ ((acc << 8) | (i < n ? data[i] : 0));
    return acc;
}

TEST(AmtCrc32, EveryLengthAndEveryCutOfTheInputGivesTheByteByByteValue) {
    std::vector<uint8_t> data(40952);
    uint32_t x = 12345;
    for (uint8_t& b : data) {
        x = x * 1103515245u + 12345u;
        b = static_cast<uint8_t>(x >> 16);
    }
    for (size_t n = 0; n <= 40; ++n) {
        for (size_t off = 0; off < 8; ++off) {
            EXPECT_EQ(amt_crc32(data.data() + off, static_cast<int32_t>(n)), crc_byte_by_byte(data.data() + off, n))
                << "length " << n << " at offset " << off;
        }
    }
    for (size_t n : {1000u, 4095u, 32768u, 40952u}) {
        EXPECT_EQ(amt_crc32(data.data(), static_cast<int32_t>(n)), crc_byte_by_byte(data.data(), n)) << n;
    }
    std::vector<uint8_t> ones(64, 0xFF);
    EXPECT_EQ(amt_crc32(ones.data(), 64), crc_byte_by_byte(ones.data(), 64));
    const uint8_t abc[] = {'a', 'b', 'c'};
    EXPECT_EQ(amt_crc32(abc, 3) & 0xFFFFFFFFu, 0xB37F2436u);
}

TEST(AmtCrc32, PreResponseCarriesTheCrcOfItsFirstTwelveBytesAndNoInputGivesZero) {
    EXPECT_EQ(amt_crc32(amt_pre_response, 12) & 0xFFFFFFFFu, 0x1DEE4A76u);
    EXPECT_EQ(amt_pre_response[12], 0x76);
    EXPECT_EQ(amt_pre_response[15], 0x1D);
    EXPECT_EQ(amt_crc32(nullptr, 0), 0u);
}

TEST(LittleEndianFields, ReadAndWriteLowByteFirstAndNeverPastTheBuffer) {
    std::vector<uint8_t> buf = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
    EXPECT_EQ(bytes::get_le32(buf, 1), 0x55443322u);
    EXPECT_EQ(bytes::get_le16(buf, 4), 0x6655u);
    EXPECT_EQ(bytes::get_le32(buf, 3), 0u);  // would end one byte past the buffer
    EXPECT_EQ(bytes::get_le16(buf, 5), 0u);
    EXPECT_EQ(bytes::get_le32(buf, SIZE_MAX), 0u);

    EXPECT_FALSE(bytes::put_le32(buf, 3, 0xA1B2C3D4u));
    EXPECT_FALSE(bytes::put_le16(buf, SIZE_MAX - 1, 0xBEEF));
    EXPECT_EQ(buf, (std::vector<uint8_t>{0x11, 0x22, 0x33, 0x44, 0x55, 0x66}));
    EXPECT_TRUE(bytes::put_le32(buf, 2, 0xA1B2C3D4u));
    EXPECT_TRUE(bytes::put_le16(buf, 0, 0xBEEF));
    EXPECT_EQ(buf, (std::vector<uint8_t>{0xEF, 0xBE, 0xD4, 0xC3, 0xB2, 0xA1}));
}

}  // namespace
