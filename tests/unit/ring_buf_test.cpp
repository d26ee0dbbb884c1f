#include <cstring>
#include <gtest/gtest.h>
#include <sched.h>
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
    RingBuf* operator->() { return &ring_; }
    RingBuf* get() { return &ring_; }

private:
    RingBuf ring_{};
};

std::vector<uint8_t> counting(size_t n, uint8_t first = 1) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(first + i);
    return v;
}

// Moves both positions to pos on an empty ring.
void park_at(RingBuf* ring, uint32_t pos) {
    std::vector<uint8_t> tmp(pos == 0 ? 1 : pos);
    if (pos == 0) return;
    ASSERT_EQ(writeRingBuf(ring, tmp.data(), pos), static_cast<int32_t>(pos));
    ASSERT_EQ(readRingBuf(ring, tmp.data(), pos), static_cast<int32_t>(pos));
}

TEST(RingBuf, FillingAFreshRingUsesEveryByteAndFurtherWritesStoreNothing) {
    Ring ring(64);
    auto data = counting(64);
    EXPECT_EQ(writeRingBuf(ring.get(), data.data(), 64), 64);
    EXPECT_EQ(ring->write_pos, 0u);
    EXPECT_EQ(isRingBufFull(ring.get()), 1);
    EXPECT_EQ(isRingBufEmpty(ring.get()), 0);
    EXPECT_EQ(getRingBufDataLen(ring.get()), 64);
    EXPECT_EQ(getRingBufFreeLen(ring.get()), 0);

    uint8_t more = 0x55;
    EXPECT_EQ(writeRingBuf(ring.get(), &more, 1), 0);
    EXPECT_EQ(getRingBufDataLen(ring.get()), 64);
    std::vector<uint8_t> out(100);
    EXPECT_EQ(readRingBuf(ring.get(), out.data(), 100), 64);
    out.resize(64);
    EXPECT_EQ(out, data);
}

TEST(RingBuf, WriteLargerThanTheRoomStoresTheRoomAndFillsTheRing) {
    Ring ring(32);
    auto data = counting(50);
    ASSERT_EQ(writeRingBuf(ring.get(), data.data(), 10), 10);
    EXPECT_EQ(writeRingBuf(ring.get(), data.data() + 10, 40), 22);
    EXPECT_EQ(isRingBufFull(ring.get()), 1);
    std::vector<uint8_t> out(32);
    ASSERT_EQ(readRingBuf(ring.get(), out.data(), 32), 32);
    EXPECT_TRUE(std::equal(out.begin(), out.end(), data.begin()));
}

TEST(RingBuf, WriteEndingAtTheStorageEndWrapsAndIsFullOnlyWhenTheReaderIsAtZero) {
    {
        Ring ring(16);
        auto data = counting(16);
        ASSERT_EQ(writeRingBuf(ring.get(), data.data(), 10), 10);
        ASSERT_EQ(writeRingBuf(ring.get(), data.data(), 6), 6);
        EXPECT_EQ(ring->write_pos, 0u);
        EXPECT_EQ(isRingBufFull(ring.get()), 1);
    }
    {
        Ring ring(16);
        park_at(ring.get(), 4);
        auto data = counting(12);
        ASSERT_EQ(writeRingBuf(ring.get(), data.data(), 12), 12);
        EXPECT_EQ(ring->write_pos, 0u);
        EXPECT_EQ(isRingBufFull(ring.get()), 0);
        EXPECT_EQ(getRingBufDataLen(ring.get()), 12);
        EXPECT_EQ(getRingBufFreeLen(ring.get()), 4);
    }
}

TEST(RingBuf, ReadEndingAtTheStorageEndWrapsItsPosition) {
    Ring ring(16);
    park_at(ring.get(), 10);
    auto data = counting(6);
    ASSERT_EQ(writeRingBuf(ring.get(), data.data(), 6), 6);
    uint8_t out[6];
    EXPECT_EQ(readRingBuf(ring.get(), out, 6), 6);
    EXPECT_EQ(ring->read_pos, 0u);
    EXPECT_EQ(isRingBufEmpty(ring.get()), 1);
}

TEST(RingBuf, ReadingMoreThanHeldEmptiesTheRingWithoutResettingPositions) {
    Ring ring(16);
    uint8_t out[16];
    EXPECT_EQ(readRingBuf(ring.get(), out, 1), 0);

    auto data = counting(5);
    ASSERT_EQ(writeRingBuf(ring.get(), data.data(), 5), 5);
    EXPECT_EQ(readRingBuf(ring.get(), out, 16), 5);
    EXPECT_EQ(isRingBufEmpty(ring.get()), 1);
    EXPECT_EQ(getRingBufDataLen(ring.get()), 0);
    EXPECT_EQ(ring->read_pos, 5u);
    EXPECT_EQ(ring->write_pos, 5u);
    EXPECT_EQ(readRingBuf(ring.get(), out, 16), 0);
}

// Full ring whose stored bytes run across the end of the storage: a read of
// the whole ring comes back in two pieces, in the order written.
TEST(RingBuf, FullRingAcrossTheEndReadsBackInOrder) {
    Ring ring(16);
    park_at(ring.get(), 11);
    auto data = counting(16, 0xA0);
    ASSERT_EQ(writeRingBuf(ring.get(), data.data(), 16), 16);
    EXPECT_EQ(isRingBufFull(ring.get()), 1);
    EXPECT_EQ(ring->write_pos, 11u);
    std::vector<uint8_t> out(16);
    EXPECT_EQ(readRingBuf(ring.get(), out.data(), 16), 16);
    EXPECT_EQ(out, data);
    EXPECT_EQ(isRingBufEmpty(ring.get()), 1);
    EXPECT_EQ(isRingBufFull(ring.get()), 0);
}

TEST(RingBuf, BadArgumentsAreRefusedWithTheirLogLineAndChangeNothing) {
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
    EXPECT_EQ(ring->read_pos, 0u);
    EXPECT_EQ(ring->write_pos, 2u);
}

TEST(RingBuf, InitAndReleaseAreSafeOnRingsThatNeverCameUp) {
    LogCapture log;
    RingBuf zeroed{};
    EXPECT_EQ(initializeRingBuf(nullptr, 16), -101);
    EXPECT_EQ(initializeRingBuf(&zeroed, 0), -101);
    EXPECT_EQ(zeroed.data, nullptr);
    EXPECT_FALSE(zeroed.sem_created);
    EXPECT_EQ(releaseRingBuf(&zeroed), 0);

    RingBuf ring{};
    ASSERT_EQ(initializeRingBuf(&ring, 16), 0);
    EXPECT_TRUE(log.contains("initializeRingBuf success"));
    EXPECT_EQ(releaseRingBuf(&ring), 0);
    EXPECT_EQ(ring.data, nullptr);
    EXPECT_FALSE(ring.sem_created);
    EXPECT_EQ(releaseRingBuf(&ring), 0);
    uint8_t b = 0;
    EXPECT_EQ(writeRingBuf(&ring, &b, 1), -101);
    EXPECT_EQ(getRingBufDataLen(&ring), -101);
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
