// The configuration file as the agent reads it at start: any bytes, through
// cfg_read (lines of up to 254 characters, the rest of a longer line as a line
// of its own) and the treatment of each line. The record must stay
// terminated and within its fields whatever the file holds.
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "process/config.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("ovta_amt.ini", MFD_CLOEXEC);
    if (fd < 0) return 0;
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    cfg_init();
    snprintf(config_file_st.config_file_path, kCfgPathSize, "/proc/self/fd/%d", fd);
    cfg_read(config_file_st.config_file_path);
    for (const char* field : {config_file_st.config_file_path, config_file_st.m_amt_relate_path,
                              config_file_st.m_rf_relate_path}) {
        if (memchr(field, '\0', kCfgPathSize) == nullptr) __builtin_trap();
    }
    return 0;
}
