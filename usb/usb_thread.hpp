// Start and end of the two USB threads, the monitoring thread and the picture
// thread. Both are detached: nobody joins them. A thread takes its own id out
// of its handle as it ends, so the teardown never asks a thread that has gone
// (or a new thread that was given the same id) to stop.
#pragma once

#include "process/pub_util.hpp"

using UsbThreadProc = void* (*)(void*);

// Starts proc on a detached thread and stores its id in handle, before the
// thread can clear it. Returns 0 or the error number of pthread_create (the
// handle then stays 0).
int amt_start_usb_thread(ThreadHandle* handle, UsbThreadProc proc);

// Called by a USB thread as it ends: clears handle if it still holds the
// calling thread's id.
void amt_usb_thread_ending(ThreadHandle* handle);
