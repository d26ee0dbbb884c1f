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
int amt_deinit_once();

// Installs the handling of SIGINT, SIGTERM, SIGSEGV, SIGBUS and SIGQUIT: the
// handler only hands the signal to a signal thread, which logs, tears down once
// and exits with code 0. SIGPIPE is ignored, so a write to a vanished peer fails
// and is reported instead of killing the process.
void install_exit_signals();

// For a thread whose next steps must not run once a signal stop has begun:
// parks the caller for good while the signal thread ends the process.
void park_if_exiting();
