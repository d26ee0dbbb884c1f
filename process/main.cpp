// ovta-amt: the factory test agent. Takes the single-instance lock, reads the
// command line and the configuration file, and starts the service, whose main
// thread then sleeps for good; a signal ends it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>

#include "process/config.hpp"
#include "process/lifecycle.hpp"
#include "process/pub_util.hpp"

namespace {

[[noreturn]] void prompt_usage(const char* argv0) {
    printf("version %s\nUsage: %s [OPTION]\n  -m <amt mode's flag>    For usb-insert-enter-amt. \n"
           "  -c <path of the config file>  config file path \n"
           "  -h                            Display this help and exit.\n\n",
           kVersionString, argv0);
    printf("exit(): FILE: %s, LINE: %d \n", "prompt_usage", 202);
    fflush(stdout);
    exit(0);
}

// Reads the options; returns false when argv[0] is missing.
bool read_options(int argc, char** argv) {
    int opt;
    while ((opt = getopt(argc, argv, "m:c:h")) != -1) {
        switch (opt) {
            case 'm':
                config_file_st.m_usb_activate = 1;
                log_dbg("set amt  mode flag(%d).", 1);
                break;
            case 'c':
                memset(config_file_st.config_file_path, 0, sizeof(config_file_st.config_file_path));
                strncpy(config_file_st.config_file_path, optarg, kCfgPathSize - 1);
                log_dbg("set config path(%s).", config_file_st.config_file_path);
                break;
            default:
                if (argv[0] == nullptr) {
                    printf("ERR_INVALID_PARAM\r\n");
                    return false;
                }
                prompt_usage(argv[0]);
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    log_dbg("\n    %s, version %s\n    Build time: %s %s", kProgramName, kVersionString, __DATE__, __TIME__);
    log_dbg("will check %s to be already run or not.", kProgramName);
    if (check_pid_file(kPidFilePath) == 1) {
        log_dbg("%s already run. Please kill it, and then rerun it.", kProgramName);
        return 0;
    }
    cfg_init();
    if (argc > 1 && !read_options(argc, argv)) return 0;
    int r = install_exit_signals();
    if (r != 0) fail_start("install_exit_signals failure: %d", r);
    if (cfg_read(config_file_st.config_file_path) != 0) {
        log_dbg("cfg_read fail.\r\n");
        return 0;
    }
    if (cfg_check() != 0) {
        log_dbg("cfg_check fail.\r\n");
        return 0;
    }
    cfg_print();
    if (run_normal() != 0) {
        log_dbg("run_normal fail.\r\n");
        main_handle_stop();
        return 0;
    }
    return 0;
}
