// Drives one row's transfer thread in this process, the way its receive
// thread would: the input is cut into chunks whose sizes come from the input,
// and each chunk goes into the row's ring only once the transfer thread has
// taken all it could and sleeps for more bytes, so every cut of a message is
// met. Head search, assembly and dispatch run for real; whatever the agent
// sends goes to /dev/null on both rows.
//
// Input: one byte n (its low 3 bits), then n bytes of chunk sizes (each byte
// + 1; they repeat), then the byte stream. With n 0 the stream is one chunk.
//
// Threads: the transfer function runs on the fuzzer's thread; a feeder thread
// writes the chunks and, once all are taken, asks the transfer thread to stop.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

// Sets the agent up once: configuration, rows, /dev/null as both links.
// Refuses (returns false) unless the root file system is read-only: a
// message may point the file service at any path, so the targets only run
// in the sandbox that scripts/fuzz.sh makes.
bool stream_rig_ready();

// Runs `index`'s transfer thread (0 wfmgr, 1 PC) over the input.
void run_stream(uint32_t index, const uint8_t* data, size_t size);

}  // namespace fuzz
