// The frame CRC and the constant pre-response: what both ends of the serial
// link compute the same way. No state but constant tables, so any thread may
// call it.
#include <array>

#include "wire/pc_frame_layout.hpp"

// A frame with frame_len 8, frame_kind 2, no cmd and no body; its last four
// bytes are amt_crc32 of the first twelve (0x1DEE4A76). Kept as bytes so that
// the answer every frame gets first costs nothing to produce.
const uint8_t amt_pre_response[16] = {0xAA, 0xBB, 0xCC, 0xDD, 0x08, 0x00, 0x00, 0x00,
                                      0x02, 0x02, 0x00, 0x00, 0x76, 0x4A, 0xEE, 0x1D};

namespace {

// The table of the reflected CRC-32 polynomial 0xEDB88320. It is complete
// before the program starts, so no thread ever sees it half built.
constexpr std::array<uint32_t, 256> make_crc_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1u) != 0 ? (c >> 1) ^ 0xEDB88320u : c >> 1;
        table[i] = c;
    }
    return table;
}

constexpr std::array<uint32_t, 256> g_tabCRC32 = make_crc_table();
static_assert(g_tabCRC32[1] == 0x77073096u);
static_assert(g_tabCRC32[128] == 0xEDB88320u);
static_assert(g_tabCRC32[255] == 0x2D02EF8Du);

inline uint64_t crc_step(uint64_t acc, uint8_t b) { return g_tabCRC32[(acc >> 24) & 0xFFu] ^ ((acc << 8) | b); }

// Eight bytes at a time. The low 32 bits of the accumulator are a state of
// their own: a step shifts them up by a byte, takes the byte leaving the top
// through the table and lets the new byte in at the bottom. Without data a
// step is the linear map A(x) = table[x >> 24] ^ (x << 8), and the table is
// linear in its index, so eight steps give
//   A^8(state) ^ A^4(d0 d1 d2 d3 as a big-endian word) ^ (d4 d5 d6 d7 likewise)
// (a data byte reaches the top only four steps after it came in). Both maps
// split by bytes into lookup tables: eight independent lookups replace eight
// dependent ones.
constexpr uint32_t zero_steps(uint32_t x, int steps) {
    for (int i = 0; i < steps; ++i) x = g_tabCRC32[x >> 24] ^ (x << 8);
    return x;
}

// g_slices[k][v], for a byte v: k 0-3 is A^8 of v at byte k of the state
// (k 0 lowest), k 4-7 is A^4 of v at byte k - 4 of the first data word.
constexpr std::array<std::array<uint32_t, 256>, 8> make_slices() {
    std::array<std::array<uint32_t, 256>, 8> t{};
    for (uint32_t v = 0; v < 256; ++v) {
        for (size_t k = 0; k < 4; ++k) {
            t[k][v] = zero_steps(v << (8 * k), 8);
            t[k + 4][v] = zero_steps(v << (8 * k), 4);
        }
    }
    return t;
}

constexpr std::array<std::array<uint32_t, 256>, 8> g_slices = make_slices();

inline uint32_t be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
           static_cast<uint32_t>(p[3]);
}

uint32_t crc_state_of(const uint8_t* data, size_t n) {
    uint32_t s = 0;
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint32_t first = be32(data + i);
        s = g_slices[0][s & 0xFFu] ^ g_slices[1][(s >> 8) & 0xFFu] ^ g_slices[2][(s >> 16) & 0xFFu] ^
            g_slices[3][s >> 24] ^ g_slices[4][first & 0xFFu] ^ g_slices[5][(first >> 8) & 0xFFu] ^
            g_slices[6][(first >> 16) & 0xFFu] ^ g_slices[7][first >> 24] ^ be32(data + i + 4);
    }
    for (; i < n; ++i) s = static_cast<uint32_t>(crc_step(s, data[i]));
    return s;
}

}  // namespace

// The reflected table with a left-shifting accumulator that takes its index
// from bits 24-31: not the common CRC-32, so a library routine gives other
// values. The input is followed by four zero bytes, which are fed here
// directly instead of through a padded copy of the input. The bits above the
// low 32 only hold the top bytes of the last four steps, so the input itself
// runs through the 32-bit state eight bytes at a time and only the four zero
// bytes go through the whole accumulator.
uint64_t amt_crc32(const uint8_t* data, int32_t n) {
    uint64_t acc = data != nullptr && n > 0 ? crc_state_of(data, static_cast<size_t>(n)) : 0;
    for (size_t i = 0; i < kPcCrcLen; ++i) acc = crc_step(acc, 0);
    return acc;
}

