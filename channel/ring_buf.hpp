// RingBuf: the byte queue between a channel's receive thread (the only writer)
// and its transfer thread (the only reader). Emptiness and fullness live in two
// flags, so all capacity bytes can be used.
//
// Every operation runs under the ring's own lock (sem, a binary semaphore), so
// the operations are atomic to each other: a reader never sees a half-written
// write and the flags never disagree with the positions. No allocation happens
// after initializeRingBuf.
#pragma once

#include <cstdint>
#include <semaphore.h>

struct RingBuf {
    uint32_t is_empty;
    uint32_t is_full;
    uint8_t* data;       // owned; null after releaseRingBuf
    uint32_t capacity;
    uint32_t read_pos;
    uint32_t write_pos;
    sem_t sem;           // value 1: the lock of the operations
    bool sem_created;
};

int32_t initializeRingBuf(RingBuf* ring, uint32_t size);
int32_t releaseRingBuf(RingBuf* ring);
int32_t writeRingBuf(RingBuf* ring, const uint8_t* src, uint32_t len);
int32_t readRingBuf(RingBuf* ring, uint8_t* dst, uint32_t len);
int32_t getRingBufDataLen(RingBuf* ring);
int32_t getRingBufFreeLen(RingBuf* ring);
int32_t isRingBufEmpty(RingBuf* ring);
int32_t isRingBufFull(RingBuf* ring);
