#include <cstring>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

#include "channel/ring_buf.hpp"
#include "log_capture.hpp"

namespace {

// A ring that is set up for the test and released after it.
class Ring {
public:
    explicit Ring(uint32_t size) { EXPECT_EQ(initializeRingBuf(&ring_, size), 0); }
    ~Ring() { releaseRingBuf(&ring_); }
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;
    RingBuf* get() { return &ring_; }

private:
    RingBuf ring_{};
};

std::vector<uint8_t> counting(size_t n, uint8_t first = 1) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(first + i);
    return v;
}

// Every start position and every length up to the capacity: the write stores
// what fits, fullness holds exactly when every byte is used, and the bytes come
// back in order across the end of the storage, leaving the ring empty.
TEST(RingBuf, WritesAndReadsFromEveryPositionWrapInOrderAndFillExactlyTheCapacity) {
    constexpr uint32_t kCap = 16;
    for (uint32_t start = 0; start < kCap; ++start) {
        for (uint32_t len = 1; len <= kCap; ++len) {
            SCOPED_TRACE("start " + std::to_string(start) + " len " + std::to_string(len));
            Ring ring(kCap);
            std::vector<uint8_t> out(2 * kCap);
            if (start > 0) {
                ASSERT_EQ(writeRingBuf(ring.get(), out.data(), start), static_cast<int32_t>(start));
                ASSERT_EQ(readRingBuf(ring.get(), out.data(), start), static_cast<int32_t>(start));
            }
            auto data = counting(kCap + 2, 0xA0);
            // Two more bytes than the room: only the room is stored.
            ASSERT_EQ(writeRingBuf(ring.get(), data.data(), len), static_cast<int32_t>(len));
            EXPECT_EQ(writeRingBuf(ring.get(), data.data() + len, kCap - len + 2), static_cast<int32_t>(kCap - len));
            EXPECT_EQ(isRingBufFull(ring.get()), 1);
            EXPECT_EQ(getRingBufFreeLen(ring.get()), 0);
            uint8_t more = 0x55;
            EXPECT_EQ(writeRingBuf(ring.get(), &more, 1), 0);
            // Read the first len bytes, then ask for more than is held.
            ASSERT_EQ(readRingBuf(ring.get(), out.data(), len), static_cast<int32_t>(len));
            EXPECT_EQ(isRingBufFull(ring.get()), 0);
            EXPECT_EQ(getRingBufDataLen(ring.get()), static_cast<int32_t>(kCap - len));
            EXPECT_EQ(isRingBufEmpty(ring.get()), len == kCap ? 1 : 0);
            if (len < kCap) {
                ASSERT_EQ(readRingBuf(ring.get(), out.data() + len, 2 * kCap), static_cast<int32_t>(kCap - len));
            }
            out.resize(kCap);
            data.resize(kCap);
            EXPECT_EQ(out, data);
            EXPECT_EQ(isRingBufEmpty(ring.get()), 1);
            EXPECT_EQ(readRingBuf(ring.get(), out.data(), 1), 0);
        }
    }
}

TEST(RingBuf, BadArgumentsAndRingsThatNeverCameUpAreRefusedWithTheirLogLineAndChangeNothing) {
    Ring ring(8);
    uint8_t b[4] = {1, 2, 3, 4};
    ASSERT_EQ(writeRingBuf(ring.get(), b, 2), 2);
    LogCapture log;
    EXPECT_EQ(writeRingBuf(ring.get(), b, 0), -101);
    EXPECT_EQ(readRingBuf(ring.get(), b, 0), -101);
    EXPECT_EQ(writeRingBuf(ring.get(), nullptr, 1), -101);
    EXPECT_EQ(readRingBuf(ring.get(), nullptr, 1), -101);
    EXPECT_EQ(writeRingBuf(nullptr, b, 1), -101);
    EXPECT_EQ(readRingBuf(nullptr, b, 1), -101);
    EXPECT_EQ(getRingBufDataLen(nullptr), -101);
    EXPECT_EQ(getRingBufFreeLen(nullptr), -101);
    EXPECT_EQ(isRingBufEmpty(nullptr), -101);
    EXPECT_EQ(isRingBufFull(nullptr), -101);
    EXPECT_EQ(releaseRingBuf(nullptr), -101);
    EXPECT_EQ(log.count("invalid parameter"), 11u);
    EXPECT_EQ(getRingBufDataLen(ring.get()), 2);
    EXPECT_EQ(readRingBuf(ring.get(), b, 4), 2);
    EXPECT_EQ(b[0], 1);

    // A ring that failed to come up, or was released twice, is safe to release
    // and refuses every use.
    RingBuf zeroed{};
    EXPECT_EQ(initializeRingBuf(nullptr, 16), -101);
    EXPECT_EQ(initializeRingBuf(&zeroed, 0), -101);
    EXPECT_EQ(releaseRingBuf(&zeroed), 0);
    RingBuf released{};
    ASSERT_EQ(initializeRingBuf(&released, 16), 0);
    EXPECT_EQ(releaseRingBuf(&released), 0);
    EXPECT_EQ(releaseRingBuf(&released), 0);
    EXPECT_EQ(writeRingBuf(&released, b, 1), -101);
    EXPECT_EQ(getRingBufDataLen(&released), -101);
}

// xorshift32: a sequence both threads can produce independently.
uint8_t next_byte(uint32_t* s) {
    *s ^= *s << 13;
    *s ^= *s >> 17;
    *s ^= *s << 5;
    return static_cast<uint8_t>(*s);
}

// One writer and one reader at full speed, with chunk sizes that do not divide
// the capacity, so the wrap falls at every offset. The reader asks for exactly
// what getRingBufDataLen reported: only it takes bytes away, so it must get all
// of them, which fails if a length is ever read while the writer is halfway
// through an update.
TEST(RingBuf, OneWriterAndOneReaderPassEveryByteInOrder) {
    constexpr size_t kTotal = 4u << 20;
    constexpr uint32_t kCapacity = 1021;
    Ring ring(kCapacity);

    std::thread writer([&] {
        uint32_t seq = 0x12345678u;
        uint8_t chunk[300];
        size_t sent = 0;
        uint32_t size = 1;
        while (sent < kTotal) {
            size = size % 257 + 13;
            uint32_t n = static_cast<uint32_t>(std::min<size_t>(size, kTotal - sent));
            for (uint32_t i = 0; i < n; ++i) chunk[i] = next_byte(&seq);
            uint32_t off = 0;
            while (off < n) {
                int32_t stored = writeRingBuf(ring.get(), chunk + off, n - off);
                ASSERT_GE(stored, 0);
                off += static_cast<uint32_t>(stored);
                if (stored == 0) sched_yield();
            }
            sent += n;
        }
    });

    uint32_t seq = 0x12345678u;
    std::vector<uint8_t> buf(kCapacity);
    size_t got = 0;
    size_t mismatches = 0;
    while (got < kTotal) {
        int32_t held = getRingBufDataLen(ring.get());
        ASSERT_GE(held, 0);
        ASSERT_LE(held, static_cast<int32_t>(kCapacity));
        if (held == 0) {
            sched_yield();
            continue;
        }
        uint32_t want = static_cast<uint32_t>(held);
        if (got % 3 == 0 && want > 1) want = want / 2 + 1;  // vary the read sizes too
        int32_t n = readRingBuf(ring.get(), buf.data(), want);
        ASSERT_EQ(n, static_cast<int32_t>(want));
        for (int32_t i = 0; i < n; ++i) mismatches += buf[static_cast<size_t>(i)] != next_byte(&seq);
        got += static_cast<size_t>(n);
    }
    writer.join();
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(got, kTotal);
    EXPECT_EQ(isRingBufEmpty(ring.get()), 1);
}

}  // namespace
