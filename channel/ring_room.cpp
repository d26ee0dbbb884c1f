// The receive thread's wait for room in the ring, and the transfer thread's
// side of it.
//
// A read from the descriptor needs more than one read's worth of free room
// (or an empty ring). Without it the receive thread, which is the ring's only
// writer, publishes the room it needs in row.room_wanted and sleeps on
// row.room_sem; the transfer thread, the ring's only reader, posts room_sem
// when its reads have freed that much. While nobody waits, the reader's side
// is one atomic load, so the one-byte reads of the head search stay cheap.
//
// No wake-up is lost: the writer publishes room_wanted before it looks at the
// ring once more, and the reader looks at room_wanted after its read. Both
// looks at the ring go through the ring's lock, so either the writer's second
// look sees the freed room or the reader sees room_wanted and posts. A stale
// post (the writer timed out as the reader posted) only makes the writer's
// next wait return at once, and it looks again.
#include "channel/channel_internal.hpp"

namespace {

constexpr uint32_t kRoomForRead = static_cast<uint32_t>(kTempBufferSize) + 1;

bool has_room(AmtChannel& row, uint32_t wanted) {
    return isRingBufEmpty(&row.ring_buf) == 1 || getRingBufFreeLen(&row.ring_buf) >= static_cast<int32_t>(wanted);
}

}  // namespace

bool channel_wait_for_room(AmtChannel& row, uint32_t wait_ms) {
    row.room_wanted.store(kRoomForRead);
    bool go_on = true;
    if (!has_room(row, kRoomForRead)) go_on = row.room_sem.wait_for(wait_ms);
    row.room_wanted.store(0);
    return go_on;
}

void channel_room_made(AmtChannel& row) {
    uint32_t wanted = row.room_wanted.load();
    if (wanted == 0 || !has_room(row, wanted)) return;
    if (row.room_wanted.exchange(0) != 0) row.room_sem.post();
}
