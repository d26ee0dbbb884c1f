#include "protocol/pc_frame.hpp"

#include <array>
#include <cstring>
#include <span>

#include "process/bytes.hpp"
#include "process/pub_util.hpp"

const uint8_t amt_pre_response[16] = {0xAA, 0xBB, 0xCC, 0xDD, 0x08, 0x00, 0x00, 0x00,
                                      0x02, 0x02, 0x00, 0x00, 0x76, 0x4A, 0xEE, 0x1D};

namespace {

// The reflected CRC-32 table (polynomial 0xEDB88320), built at compile time.
constexpr std::array<uint32_t, 256> make_crc_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
        table[i] = c;
    }
    return table;
}

constexpr std::array<uint32_t, 256> g_tabCRC32 = make_crc_table();
static_assert(g_tabCRC32[1] == 0x77073096u && g_tabCRC32[128] == 0xEDB88320u && g_tabCRC32[255] == 0x2D02EF8Du);

inline uint64_t crc_step(uint64_t acc, uint8_t b) {
    return g_tabCRC32[static_cast<size_t>((acc >> 24) & 0xFF)] ^ ((acc << 8) | b);
}

}  // namespace

// The table is the reflected one while the accumulator shifts left and takes
// its index from bits 24-31; the input is followed by four zero bytes. This
// is not the common CRC-32: a library's routine gives other values.
uint64_t amt_crc32(const uint8_t* data, int32_t n) {
    uint64_t acc = 0;
    for (int32_t i = 0; data != nullptr && i < n; ++i) acc = crc_step(acc, data[i]);
    for (int i = 0; i < 4; ++i) acc = crc_step(acc, 0);
    return acc;
}

int32_t add_amt_cmd_general_msg(uint8_t* buf, int32_t size, uint32_t cmd) {
    if (buf == nullptr || size < static_cast<int32_t>(kPcHeaderLen)) {
        log_dbg("add_amt_cmd_general_msg Invalid parameter .");
        return kRetBadSize;
    }
    std::span<uint8_t> frame(buf, kPcHeaderLen);
    memset(buf, 0, kPcHeaderLen);
    memcpy(buf, kFrameHead, sizeof(kFrameHead));
    bytes::put_le32(frame, 4, 16);
    buf[8] = kFrameTag;
    buf[9] = 0;
    bytes::put_le32(frame, 12, cmd);
    return 0;
}

int32_t add_amt_crc(uint8_t* buf, int32_t n) {
    if (buf == nullptr || n < 0) {
        log_dbg("%d", 1);
        return kRetInvalidParam;
    }
    auto crc = static_cast<uint32_t>(amt_crc32(buf, n));
    bytes::put_le32(std::span<uint8_t>(buf, static_cast<size_t>(n) + 4), static_cast<size_t>(n), crc);
    return 0;
}

uint16_t get_amt_msg_len(const uint8_t* p) {
    if (p == nullptr) return 0;
    return bytes::get_le16(std::span<const uint8_t>(p, 2), 0);
}

int32_t add_amt_head(AmtPayloadStore* store) {
    if (store == nullptr) {
        log_dbg("%d", 1);
        return kRetInvalidParam;
    }
    if (store->len == 0) store->len = get_amt_msg_len(store->data);
    if (store->len == 0) {
        log_dbg("%d", 1);
        return kRetInvalidParam;
    }
    uint32_t payload = store->len;
    if (payload > kAmtStorePayloadMaxForPc) {
        log_dbg("add_amt_head payload of %u bytes does not fit a frame in the store (at most %u).", payload,
                static_cast<unsigned>(kAmtStorePayloadMaxForPc));
        return kRetInvalidParam;
    }
    std::span<uint8_t> data(store->data);
    memmove(store->data + 12, store->data, payload);
    memcpy(store->data, kFrameHead, sizeof(kFrameHead));
    bytes::put_le32(data, 4, payload + 8);
    store->data[8] = kFrameTag;
    store->data[9] = 0;
    bytes::put_le16(data, 10, 0);
    store->len = payload + 12;
    bytes::put_le32(data, store->len, static_cast<uint32_t>(amt_crc32(store->data, static_cast<int32_t>(store->len))));
    store->len += 4;
    return 0;
}
