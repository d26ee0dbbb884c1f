// Start and stop of the service.
#pragma once

#include <atomic>
#include <cstdint>

constexpr const char* kProgramName = "ovta-amt";
constexpr const char* kVersionString = "ovta-amt v1.0.0 2022-08-05";
constexpr const char* kPidFilePath = "/tmp/ovta-amt.pid";
constexpr int kExitStartFailure = 21;

// Set once by the signal path; a second signal finds it set.
extern std::atomic<int32_t> g_blnExitSignal;
// Set as the first act of amt_handle_deinit; the teardown runs once.
extern std::atomic<uint8_t> g_blnDeinitDone;

int check_pid_file(const char* path);
int run_normal();
int main_handle_start();
int main_handle_stop();
// Runs the teardown unless a thread has begun it; a caller that finds it begun
// elsewhere waits (up to 5 s) until it has finished.
int amt_deinit_once();

// Installs the handling of SIGINT, SIGTERM, SIGSEGV, SIGBUS and SIGQUIT: the
// handler only hands the signal to a signal thread, which logs, tears down once
// and exits with code 0. SIGPIPE is ignored, so a write to a vanished peer fails
// and is reported instead of killing the process. Returns 0, or the error
// number of a signal thread that could not be started (the exit signals then
// keep their default action).
int install_exit_signals();

// The process ends by one road only: the signal road (code 0) or the road of
// a failed start (code 21). Each claims it before its teardown and exit; true
// for the first claim only. A road that finds it taken leaves the end to the
// other and never calls exit.
bool claim_exit_road();

// Ends a failed start: logs text (with result), tears down once, exits with
// kExitStartFailure, unless the signal road has begun the end: then the main
// thread parks and that road ends the process.
[[noreturn]] void fail_start(const char* text, int result);

// For the main thread, whose next steps must not run once a signal stop has
// begun: parks it for good while the signal thread ends the process.
void park_if_exiting();

// For the signal thread, before exit(): waits (up to 3 s) until the main thread
// has parked, after the start or after giving it up.
void await_main_thread_parked();
