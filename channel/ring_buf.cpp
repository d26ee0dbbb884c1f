// The ring's operations, each under the ring's lock (sem as a binary
// semaphore), so that the writer and the reader never see each other's
// half-done update: positions and flags change together.
#include "channel/ring_buf.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "process/pub_util.hpp"

namespace {

class RingLock {
public:
    explicit RingLock(RingBuf* ring) : ring_(ring) {
        while (sem_wait(&ring_->sem) != 0 && errno == EINTR) {
        }
    }
    ~RingLock() { sem_post(&ring_->sem); }
    RingLock(const RingLock&) = delete;
    RingLock& operator=(const RingLock&) = delete;

private:
    RingBuf* ring_;
};

bool usable(const RingBuf* ring) { return ring != nullptr && ring->sem_created && ring->data != nullptr; }

uint32_t held_locked(const RingBuf* ring) {
    if (ring->is_empty) return 0;
    if (ring->is_full) return ring->capacity;
    if (ring->read_pos < ring->write_pos) return ring->write_pos - ring->read_pos;
    return ring->write_pos + ring->capacity - ring->read_pos;
}

int32_t invalid() {
    log_dbg("invalid parameter");
    return kRetInvalidParam;
}

}  // namespace

int32_t initializeRingBuf(RingBuf* ring, uint32_t size) {
    if (ring == nullptr || size == 0) return invalid();
    ring->capacity = size;
    ring->read_pos = 0;
    ring->write_pos = 0;
    ring->is_empty = 1;
    ring->is_full = 0;
    ring->sem_created = false;
    ring->data = static_cast<uint8_t*>(malloc(size));
    if (ring->data == nullptr) {
        log_dbg("malloc memmory fail(%d)", static_cast<int>(size));
        return kRetRingAlloc;
    }
    sem_init(&ring->sem, 0, 1);
    ring->sem_created = true;
    log_dbg("initializeRingBuf success");
    return 0;
}

int32_t releaseRingBuf(RingBuf* ring) {
    if (ring == nullptr) return invalid();
    free(ring->data);
    ring->data = nullptr;
    if (ring->sem_created) sem_destroy(&ring->sem);
    ring->sem_created = false;
    return 0;
}

int32_t writeRingBuf(RingBuf* ring, const uint8_t* src, uint32_t len) {
    if (src == nullptr || len == 0 || !usable(ring)) return invalid();
    RingLock hold(ring);
    uint32_t free_len = ring->capacity - held_locked(ring);
    ring->is_empty = 0;
    if (ring->is_full) return 0;
    uint32_t count = len < free_len ? len : free_len;
    uint32_t first = ring->capacity - ring->write_pos;
    if (first > count) first = count;
    memcpy(ring->data + ring->write_pos, src, first);
    memcpy(ring->data, src + first, count - first);
    ring->write_pos += count;
    if (ring->write_pos >= ring->capacity) ring->write_pos -= ring->capacity;
    ring->is_full = ring->write_pos == ring->read_pos ? 1 : 0;
    return static_cast<int32_t>(count);
}

int32_t readRingBuf(RingBuf* ring, uint8_t* dst, uint32_t len) {
    if (dst == nullptr || len == 0 || !usable(ring)) return invalid();
    RingLock hold(ring);
    ring->is_full = 0;
    if (ring->is_empty) return 0;
    uint32_t held = ring->read_pos == ring->write_pos ? ring->capacity : held_locked(ring);
    uint32_t count = len < held ? len : held;
    uint32_t first = ring->capacity - ring->read_pos;
    if (first > count) first = count;
    memcpy(dst, ring->data + ring->read_pos, first);
    memcpy(dst + first, ring->data, count - first);
    ring->read_pos += count;
    if (ring->read_pos >= ring->capacity) ring->read_pos -= ring->capacity;
    ring->is_empty = ring->read_pos == ring->write_pos ? 1 : 0;
    return static_cast<int32_t>(count);
}

int32_t getRingBufDataLen(RingBuf* ring) {
    if (!usable(ring)) return invalid();
    RingLock hold(ring);
    return static_cast<int32_t>(held_locked(ring));
}

int32_t getRingBufFreeLen(RingBuf* ring) {
    if (!usable(ring)) return invalid();
    RingLock hold(ring);
    return static_cast<int32_t>(ring->capacity - held_locked(ring));
}

int32_t isRingBufEmpty(RingBuf* ring) {
    if (!usable(ring)) return invalid();
    RingLock hold(ring);
    return static_cast<int32_t>(ring->is_empty);
}

int32_t isRingBufFull(RingBuf* ring) {
    if (!usable(ring)) return invalid();
    RingLock hold(ring);
    return static_cast<int32_t>(ring->is_full);
}
