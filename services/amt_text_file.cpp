#include "services/amt_text_file.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "process/config.hpp"
#include "process/pub_util.hpp"
#include "services/factory_files.hpp"
#include "services/file_replace.hpp"
#include "services/unique_file.hpp"

namespace {

// The temporary file of a write: the file's own name with this behind it.
constexpr const char* kTempSuffix = ".tmp";
constexpr int kLineReadSize = 99;  // fgets size: at most 98 bytes of the line

void amt_file_path(char (&out)[kAmtPathSize], const char* file_name) {
    char base[kCfgPathSize];
    cfg_get_amt_relate_path(base);
    amt_join_path(out, base, file_name);
}

}  // namespace

int write_amt_text_file(const char* text, size_t max_len, const char* file_name) {
    const size_t len = text != nullptr ? strnlen(text, max_len) : 0;
    if (len == 0) {
        log_dbg("%d, %d", text == nullptr ? 1 : 0, text != nullptr ? 1 : 0);
        return kRetInvalidParam;
    }
    char path[kAmtPathSize];
    amt_file_path(path, file_name);
    char temp_path[kAmtPathSize];
    amt_join_path(temp_path, path, kTempSuffix);
    log_dbg("will open file(%s).", path);

    FileReplacement file("write_amt_text_file", path, temp_path);
    if (!file.open()) {
        log_dbg("open(\"%s\") fail: %d - %s", path, errno, strerror(errno));
        return kRetResource;
    }
    int result = 0;
    if (fwrite(text, 1, len, file.stream()) != len) {
        log_dbg("fputs fail: %d - %s", errno, strerror(errno));
        result = kRetResource;
    } else if (!file.commit()) {
        result = kRetResource;
    } else {
        log_dbg("write content: %.*s", static_cast<int>(len), text);
    }
    // A failed write has left the old file as it was; the ritual runs all the
    // same, as after every write that reached the directory.
    amt_sync_ritual();
    return result;
}

int read_amt_text_file(char (&out)[kAmtTextSize], const char* file_name) {
    memset(out, 0, sizeof(out));
    char line[kAmtTextSize] = {};
    char path[kAmtPathSize];
    amt_file_path(path, file_name);
    log_dbg("will open file(%s).", path);

    UniqueFile file(fopen(path, "r"));
    if (file == nullptr) {
        log_dbg("open(\"%s\") fail: %d - %s", path, errno, strerror(errno));
        return kRetResource;
    }
    if (fgets(line, kLineReadSize, file.get()) == nullptr) {
        log_dbg("read fail: %d - %s", errno, strerror(errno));
        return kRetResource;
    }
    memcpy(out, line, strnlen(line, kLineReadSize));  // out was zeroed: it stays terminated
    // One byte only: of a line ending in CR LF the CR stays.
    size_t len = strlen(out);
    if (len > 0 && (out[len - 1] == '\n' || out[len - 1] == '\r')) out[len - 1] = '\0';
    log_dbg("read content: %s", out);
    return 0;
}
