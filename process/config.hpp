// The configuration record: the command line and /system/etc/ovta_amt.ini at
// start-up, and the two base directories that wfmgr and the enter-AMT command
// rewrite while the service runs.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t kCfgPathSize = 160;
constexpr const char* kDefaultConfigPath = "/system/etc/ovta_amt.ini";

struct ConfigFile {
    char config_file_path[kCfgPathSize];
    char m_amt_relate_path[kCfgPathSize];  // read through cfg_get_amt_relate_path once threads run
    char m_rf_relate_path[kCfgPathSize];   // read through cfg_get_rf_relate_path once threads run
    uint32_t m_usb_activate;
    uint32_t output_more_log;
};

// Written on the main thread before any other thread exists; after that only
// the two paths change, and only through the functions below.
extern ConfigFile config_file_st;

int cfg_init();
int cfg_read(const char* path);
int cfg_check();
int cfg_print();

// Treats one line of the configuration file (exposed for unit tests).
void cfg_treat_line(char* line);

// The two base directories, copied out or replaced whole under a lock, so that
// a reader on the other transfer thread never sees a half-written path.
void cfg_get_amt_relate_path(char (&out)[kCfgPathSize]);
void cfg_set_amt_relate_path(const char* text);
void cfg_get_rf_relate_path(char (&out)[kCfgPathSize]);
void cfg_set_rf_relate_path(const char* text);
// Rewrites m_amt_relate_path in place under the same lock: `edit` gets the
// field and `arg`, and its result is handed back. A read-modify-write that
// races the relate info indication on the other transfer thread thus works on
// one whole path and leaves one whole path.
int cfg_edit_amt_relate_path(int (*edit)(char (&path)[kCfgPathSize], const char* arg), const char* arg);
