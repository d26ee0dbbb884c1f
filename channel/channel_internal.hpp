// Shared between the files of the channel layer only.
#pragma once

#include <mutex>

#include "channel/amt_channel.hpp"

// Held by open_all_device while it sets a row up and by amt_handle_deinit
// while it tears rows down, so a signal that arrives during the start never
// closes a row that is half built.
extern std::mutex g_channel_lifecycle_lock;

// A descriptor that fails every read and write (the write end of a pipe whose
// read end is closed). A closed row's descriptor number is pointed at it rather
// than freed, so a sender on another thread that loaded the number just before
// the close fails instead of writing into whatever file reuses the number.
int channel_dead_fd();

// Set by the teardown under the lifecycle lock: no row opens after it.
void channel_mark_teardown();

// Closes fd by pointing its number at the dead descriptor; returns what the
// close gave (0 or -1 with errno). Does nothing for a negative fd.
int channel_retire_fd(int fd);

// The end steps shared by the four channel threads: clear run_flag, log,
// take the thread's own id out of the row, close the row unless somebody did.
void channel_thread_end(uint32_t index, ThreadHandle AmtChannel::*own_id, const char* stop_message);

// A stoppable channel thread that saw its stop request says so and returns.
void* channel_thread_stopped();

// Room in the ring for the receive thread (ring_room.cpp).
// The receive thread, when the ring has no room for a read: waits until the
// transfer thread has made room, at most wait_ms. False on a stop.
bool channel_wait_for_room(AmtChannel& row, uint32_t wait_ms);
// The transfer thread, after each read from the ring: wakes the receive
// thread if it waits for room and the room is now there.
void channel_room_made(AmtChannel& row);
