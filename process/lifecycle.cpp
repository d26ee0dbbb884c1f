// The stages of the start, the teardown guard and the parking of the main
// thread.
#include "process/lifecycle.hpp"

#include <climits>
#include <cstdlib>
#include <unistd.h>

#include "channel/amt_channel.hpp"
#include "process/config.hpp"
#include "process/pub_util.hpp"
#include "usb/usb_entry.hpp"

std::atomic<int32_t> g_blnExitSignal{0};
std::atomic<uint8_t> g_blnDeinitDone{0};

int amt_deinit_once() {
    if (g_blnDeinitDone.exchange(1) == 0) amt_handle_deinit();
    return 0;
}

int main_handle_stop() {
    amt_deinit_once();
    log_dbg("will exit\r\n");
    return 0;
}

void park_if_exiting() {
    if (g_blnExitSignal.load() == 0) return;
    for (;;) pause();
}

namespace {

[[noreturn]] void fail_start(const char* text, int result) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    log_err(text, result);
#pragma GCC diagnostic pop
    // A stop by signal may have cut the start short: that road ends the
    // process (code 0), not this one.
    park_if_exiting();
    amt_deinit_once();
    park_if_exiting();
    log_dbg("will exit\r\n");
    exit(kExitStartFailure);
}

}  // namespace

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
    for (;;) sleep(UINT_MAX);
}
