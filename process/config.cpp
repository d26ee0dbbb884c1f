// The configuration record and the reader of /system/etc/ovta_amt.ini.
//
// A line is "key = value". Only the blank (0x20) counts as white space around
// key and value; a tab stays part of the text. A line whose first non-blank is
// '#' is a comment; a '#' elsewhere is text. The first non-empty
// amt_relate_path wins, the last output_more_log wins, other keys are ignored.
#include "process/config.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "process/pub_util.hpp"
#include "services/rftab_list.hpp"

ConfigFile config_file_st{};

namespace {

constexpr int kLineBufSize = 256;
std::mutex g_path_lock;  // guards the two paths once threads run

void copy_path(char (&dst)[kCfgPathSize], const char* text) {
    memset(dst, 0, sizeof(dst));
    if (text != nullptr) strncpy(dst, text, kCfgPathSize - 1);
}

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};

}  // namespace

int cfg_init() {
    memset(&config_file_st, 0, sizeof(config_file_st));
    rftab_list_clear();
    return 0;
}

void cfg_treat_line(char* line) {
    char* key = line;
    while (*key == ' ') ++key;
    if (*key == '#') return;
    char* eq = strchr(key, '=');
    if (eq == nullptr) return;
    char* key_end = eq;
    while (key_end > line && key_end[-1] == ' ') --key_end;
    *key_end = '\0';
    char* value = eq + 1;
    while (*value == ' ') ++value;
    size_t vlen = strlen(value);
    while (vlen > 0 && (value[vlen - 1] == ' ' || value[vlen - 1] == '\r' || value[vlen - 1] == '\n')) {
        value[--vlen] = '\0';
    }
    if (key[0] == '\0' || key_end <= key) return;

    if (strcmp(key, "amt_relate_path") == 0) {
        if (config_file_st.m_amt_relate_path[0] != '\0') {
            log_dbg("command-line parameter has setted amt-relate path(%s), it is priority.",
                    config_file_st.m_amt_relate_path);
            return;
        }
        copy_path(config_file_st.m_amt_relate_path, value);
    } else if (strcmp(key, "output_more_log") == 0) {
        config_file_st.output_more_log = static_cast<uint32_t>(atoi(value));
    }
}

int cfg_read(const char* path) {
    if (path == nullptr || path[0] == '\0') {
        log_dbg("config_file_ptr is NULL, will use default path.");
        copy_path(config_file_st.config_file_path, kDefaultConfigPath);
    } else {
        log_dbg("config_file_ptr is not NULL %s.", path);
    }
    const char* file_path = config_file_st.config_file_path;
    log_dbg("open config file %s.", file_path);
    std::unique_ptr<FILE, FileCloser> file(fopen(file_path, "r"));
    if (!file) {
        log_dbg(" open config file(%s) fail. error:%d-%s.", file_path, errno, strerror(errno));
    } else {
        char line[kLineBufSize];
        for (;;) {
            int32_t len = 0;
            uint8_t end = 0;
            read_line(file.get(), line, kLineBufSize, &len, &end);
            if (end) break;
            if (len == 0) {
                if (ferror(file.get())) break;  // a failed read would repeat for ever
                continue;
            }
            cfg_treat_line(line);
        }
    }
    OUTPUT_MORE_LOG.store(config_file_st.output_more_log);
    log_dbg("end read config file.");
    return 0;
}

int cfg_check() {
    log_dbg("cfg_check begin.");
    log_dbg("cfg_check end.");
    return 0;
}

int cfg_print() {
    log_dbg("config file = %s", config_file_st.config_file_path);
    char amt[kCfgPathSize];
    cfg_get_amt_relate_path(amt);
    log_dbg("amt_relate_path = %s", amt);
    log_dbg("output_more_log= %d", static_cast<int>(config_file_st.output_more_log));
    return 0;
}

void cfg_get_amt_relate_path(char (&out)[kCfgPathSize]) {
    std::lock_guard<std::mutex> hold(g_path_lock);
    memcpy(out, config_file_st.m_amt_relate_path, kCfgPathSize);
}

void cfg_set_amt_relate_path(const char* text) {
    std::lock_guard<std::mutex> hold(g_path_lock);
    copy_path(config_file_st.m_amt_relate_path, text);
}

int cfg_edit_amt_relate_path(int (*edit)(char (&path)[kCfgPathSize], const char* arg), const char* arg) {
    std::lock_guard<std::mutex> hold(g_path_lock);
    return edit(config_file_st.m_amt_relate_path, arg);
}

void cfg_get_rf_relate_path(char (&out)[kCfgPathSize]) {
    std::lock_guard<std::mutex> hold(g_path_lock);
    memcpy(out, config_file_st.m_rf_relate_path, kCfgPathSize);
}

void cfg_set_rf_relate_path(const char* text) {
    std::lock_guard<std::mutex> hold(g_path_lock);
    copy_path(config_file_st.m_rf_relate_path, text);
}
