// The ring's operations. The receive thread writes and the transfer thread
// reads, so each operation takes the ring's own lock (sem, a binary semaphore)
// for its whole length: positions and flags change together, and neither side
// ever sees the other's update half done. Without it there are moments when
// both flags are 0 with equal positions, which reads as a full ring, and a
// late "empty" from the reader could hide the writer's fresh bytes.
//
// Trap: the held count comes from the flags, so it must be taken before an
// operation touches a flag. Clearing is_empty first would make an empty ring
// with equal positions look full.
//
// releaseRingBuf is not locked: it runs when neither thread uses the ring
// any more.
#include "channel/ring_buf.hpp"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "process/pub_util.hpp"

namespace {

// Holds sem for one operation. sem_wait is retried when a signal cuts it
// short; any other failure leaves the lock not held, and the operation is
// refused rather than run unguarded.
class RingLock {
public:
    explicit RingLock(RingBuf* ring) : ring_(ring) {
        int rc;
        do {
            rc = sem_wait(&ring_->sem);
        } while (rc != 0 && errno == EINTR);
        held_ = rc == 0;
    }
    ~RingLock() {
        if (held_) sem_post(&ring_->sem);
    }
    RingLock(const RingLock&) = delete;
    RingLock& operator=(const RingLock&) = delete;

    bool held() const { return held_; }

private:
    RingBuf* ring_;
    bool held_ = false;
};

int32_t invalid_parameter() {
    log_dbg("invalid parameter");
    return kRetInvalidParam;
}

// A ring that never came up, or was released, has no storage and no lock.
bool ready(const RingBuf* ring) { return ring != nullptr && ring->sem_created && ring->data != nullptr; }

// Bytes held, with the lock held.
uint32_t held_len(const RingBuf* ring) {
    if (ring->is_empty) return 0;
    if (ring->is_full) return ring->capacity;
    if (ring->read_pos < ring->write_pos) return ring->write_pos - ring->read_pos;
    return ring->write_pos + ring->capacity - ring->read_pos;
}

uint32_t advance(const RingBuf* ring, uint32_t pos, uint32_t count) {
    uint32_t to_end = ring->capacity - pos;
    return count < to_end ? pos + count : count - to_end;
}

}  // namespace

// Counts come back as signed 32-bit results, so a ring holds at most
// INT32_MAX bytes.
int32_t initializeRingBuf(RingBuf* ring, uint32_t size) {
    if (ring == nullptr || size == 0 || size > static_cast<uint32_t>(INT32_MAX)) return invalid_parameter();
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
    if (sem_init(&ring->sem, 0, 1) != 0) {
        log_dbg("initializeRingBuf sem_init failure error:%d-%s", errno, strerror(errno));
        free(ring->data);
        ring->data = nullptr;
        return kRetRingAlloc;
    }
    ring->sem_created = true;
    log_dbg("initializeRingBuf success");
    return 0;
}

int32_t releaseRingBuf(RingBuf* ring) {
    if (ring == nullptr) return invalid_parameter();
    free(ring->data);
    ring->data = nullptr;
    if (ring->sem_created) {
        sem_destroy(&ring->sem);
        ring->sem_created = false;
    }
    return 0;
}

// Stores what fits and drops the rest; a short count is the only report.
int32_t writeRingBuf(RingBuf* ring, const uint8_t* src, uint32_t len) {
    if (src == nullptr || len == 0 || !ready(ring)) return invalid_parameter();
    RingLock lock(ring);
    if (!lock.held()) return invalid_parameter();
    uint32_t room = ring->capacity - held_len(ring);
    ring->is_empty = 0;
    if (ring->is_full) return 0;
    uint32_t count = len < room ? len : room;
    uint32_t to_end = ring->capacity - ring->write_pos;
    uint32_t first = count < to_end ? count : to_end;
    memcpy(ring->data + ring->write_pos, src, first);
    if (count > first) memcpy(ring->data, src + first, count - first);
    ring->write_pos = advance(ring, ring->write_pos, count);
    ring->is_full = ring->write_pos == ring->read_pos ? 1 : 0;
    return static_cast<int32_t>(count);
}

int32_t readRingBuf(RingBuf* ring, uint8_t* dst, uint32_t len) {
    if (dst == nullptr || len == 0 || !ready(ring)) return invalid_parameter();
    RingLock lock(ring);
    if (!lock.held()) return invalid_parameter();
    uint32_t held = held_len(ring);
    ring->is_full = 0;
    if (ring->is_empty) return 0;
    uint32_t count = len < held ? len : held;
    uint32_t to_end = ring->capacity - ring->read_pos;
    uint32_t first = count < to_end ? count : to_end;
    memcpy(dst, ring->data + ring->read_pos, first);
    if (count > first) memcpy(dst + first, ring->data, count - first);
    ring->read_pos = advance(ring, ring->read_pos, count);
    ring->is_empty = ring->read_pos == ring->write_pos ? 1 : 0;
    return static_cast<int32_t>(count);
}

int32_t getRingBufDataLen(RingBuf* ring) {
    if (!ready(ring)) return invalid_parameter();
    RingLock lock(ring);
    if (!lock.held()) return invalid_parameter();
    return static_cast<int32_t>(held_len(ring));
}

int32_t getRingBufFreeLen(RingBuf* ring) {
    if (!ready(ring)) return invalid_parameter();
    RingLock lock(ring);
    if (!lock.held()) return invalid_parameter();
    return static_cast<int32_t>(ring->capacity - held_len(ring));
}

int32_t isRingBufEmpty(RingBuf* ring) {
    if (!ready(ring)) return invalid_parameter();
    RingLock lock(ring);
    if (!lock.held()) return invalid_parameter();
    return static_cast<int32_t>(ring->is_empty);
}

int32_t isRingBufFull(RingBuf* ring) {
    if (!ready(ring)) return invalid_parameter();
    RingLock lock(ring);
    if (!lock.held()) return invalid_parameter();
    return static_cast<int32_t>(ring->is_full);
}
