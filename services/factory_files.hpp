// What every factory file operation shares: the path of a file under one of
// the two base directories, and the sync ritual behind each write.
//
// Runs on the transfer threads. Its waits are the thread's stoppable waits
// (pub_util.hpp): a stop during the ritual ends it at once, and the caller
// then returns without answering, as the teardown is under way.
#pragma once

#include <cstddef>
#include <sys/types.h>

constexpr size_t kAmtPathSize = 512;
constexpr const char* kSyncProgram = "/system/bin/sync";

// "%s%s" of a base directory and a file name into a zeroed buffer, with a
// bound of 511: no separator is added, a base directory ends in its own slash,
// and a longer result is cut.
void amt_join_path(char (&out)[kAmtPathSize], const char* base, const char* name);

// How amt_wait_child learns of the end of the process: kPidfd through a
// descriptor of the process where the kernel gives one, else (kernels before
// 5.3, common on factory phones) as kPoll does; kPoll asks waitpid(WNOHANG)
// between stoppable waits of 10 ms.
enum class ChildWait { kPidfd, kPoll };

// Waits for the end of the child process `pid` and reaps it. False when the
// calling thread was asked to stop meanwhile: the wait ends at once (within
// 10 ms when polling) and the child is left to end on its own.
bool amt_wait_child(pid_t pid, ChildWait how);

// Runs /system/bin/sync (no shell) and waits for its end. False when the
// calling thread was asked to stop meanwhile; the program then finishes on its
// own and is reaped with the process.
bool amt_run_sync();

// After a factory file was written and closed: 50 ms, sync, 50 ms, sync.
// False when the calling thread was asked to stop meanwhile.
bool amt_sync_ritual();
