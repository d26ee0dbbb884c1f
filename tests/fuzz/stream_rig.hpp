// Drives one row's transfer steps on the fuzzer's own thread, the way the
// row's transfer thread runs them between its waits: the input is cut into
// chunks whose sizes come from the input; each chunk goes into the row's ring,
// and transfer_step runs until it asks to wait for more bytes. So every cut
// of a message is met, and head search, assembly and dispatch run for real,
// with no thread and no sleep. Whatever the agent sends goes to /dev/null on
// both rows.
//
// Where the input ends, the thread would wait for good, and the rig checks
// what that wait relies on: a step that asks for the endless wait leaves the
// ring empty, and a step called again with no new bytes neither dispatches
// nor takes anything (the thread's wake-ups without bytes change nothing). A
// wfmgr stream out of step ends the link: the rest of the input is not read,
// as the link would be gone.
//
// Input: one byte n (its low 3 bits), then n bytes of chunk sizes (each byte
// + 1; they repeat, for at most 1024 chunks), then the byte stream. With n 0
// the stream is one chunk.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

// Sets the agent up once: configuration, rows, /dev/null as both links.
// Refuses (returns false) unless the root file system is read-only: a
// message may point the file service at any path, so the targets only run
// in the sandbox that scripts/fuzz.sh makes.
bool stream_rig_ready();

// Runs `index`'s transfer steps (0 wfmgr, 1 PC) over the input.
void run_stream(uint32_t index, const uint8_t* data, size_t size);

}  // namespace fuzz
