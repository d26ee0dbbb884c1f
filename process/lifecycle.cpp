// The stages of the start, the teardown guard and the parking of the main
// thread.
#include "process/lifecycle.hpp"

#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <unistd.h>

#include "channel/amt_channel.hpp"
#include "process/config.hpp"
#include "process/pub_util.hpp"
#include "usb/usb_entry.hpp"

std::atomic<int32_t> g_blnExitSignal{0};
std::atomic<uint8_t> g_blnDeinitDone{0};

namespace {

// A teardown that another thread runs (the monitoring thread at DISCONNECTED)
// is waited for, within a bound, before the caller goes on to end the process:
// exit() must not release what that teardown is still closing.
constexpr auto kOtherTeardownWait = std::chrono::seconds(5);
std::mutex g_deinit_lock;
std::condition_variable g_deinit_finished_cv;
bool g_deinit_finished = false;  // guarded by g_deinit_lock

// The main thread may still be in the start when a signal ends the process:
// exit() must not release the rows and buffers that the start is using. The
// start gives up at its next step once a teardown has begun (the channel
// opening tests for it before each try), and the main thread then parks; the
// signal thread waits for that, within a bound, before it exits.
constexpr auto kMainParkWait = std::chrono::seconds(3);
std::mutex g_park_lock;
std::condition_variable g_main_parked_cv;
bool g_main_parked = false;  // guarded by g_park_lock

void announce_main_parked() {
    std::lock_guard<std::mutex> hold(g_park_lock);
    g_main_parked = true;
    g_main_parked_cv.notify_all();
}

}  // namespace

void await_main_thread_parked() {
    std::unique_lock<std::mutex> lock(g_park_lock);
    g_main_parked_cv.wait_for(lock, kMainParkWait, [] { return g_main_parked; });
}

int amt_deinit_once() {
    if (g_blnDeinitDone.exchange(1) == 0) {
        amt_handle_deinit();
        // Notified under the lock: the waiter goes on to exit(), which
        // destroys the condition variable, only after the notification.
        std::lock_guard<std::mutex> hold(g_deinit_lock);
        g_deinit_finished = true;
        g_deinit_finished_cv.notify_all();
        return 0;
    }
    std::unique_lock<std::mutex> lock(g_deinit_lock);
    g_deinit_finished_cv.wait_for(lock, kOtherTeardownWait, [] { return g_deinit_finished; });
    return 0;
}

int main_handle_stop() {
    amt_deinit_once();
    log_dbg("will exit\r\n");
    return 0;
}

void park_if_exiting() {
    if (g_blnExitSignal.load() == 0) return;
    announce_main_parked();
    for (;;) pause();
}

bool claim_exit_road() {
    static std::atomic<bool> claimed{false};
    return !claimed.exchange(true);
}

void fail_start(const char* text, int result) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    log_err(text, result);
#pragma GCC diagnostic pop
    if (!claim_exit_road()) {
        // A stop by signal cut the start short: that road ends the process
        // (code 0) once this thread has parked.
        log_dbg("the stop by signal ends the process");
        announce_main_parked();
        for (;;) pause();
    }
    amt_deinit_once();
    log_dbg("will exit\r\n");
    exit(kExitStartFailure);
}

int main_handle_start() {
    int r = ovta_amt_init();
    if (r != 0) fail_start("ovta_amt_init failure: %d", r);
    r = amt_handle_init();
    if (r != 0) fail_start("amt_handle_init failure: %d", r);
    r = open_all_device();
    if (r != 0) fail_start("open_all_device failure: %d", r);
    if (config_file_st.m_usb_activate == 1) {
        r = init_for_amt_1_4();
        if (r != 0) fail_start("init_for_amt_1_4 failure: %d", r);
    }
    log_dbg("handle_start success\n");
    return 0;
}

int run_normal() {
    log_dbg("main_handle_start begin \n");
    int r = main_handle_start();
    log_dbg("main_handle_start end \n");
    if (r != 0) return r;
    announce_main_parked();
    for (;;) sleep(UINT_MAX);
}
