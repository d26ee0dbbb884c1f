#include "services/rf_files.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/types.h>

#include "process/config.hpp"
#include "process/pub_util.hpp"
#include "services/rftab_list.hpp"

namespace {

// The RF file service takes its paths through a buffer of this size.
constexpr uint32_t kRfCodeNameSize = 128;

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

bool seek_to(FILE* f, uint32_t offset) { return fseeko(f, static_cast<off_t>(offset), SEEK_SET) == 0; }

}  // namespace

int get_rf_specified_file(char* dst, uint32_t len, uint32_t table_type) {
    log_dbg("get_rf_specified_file len:%d,table_type:%d, g_wfmgr_rftab_info_count:%d.", static_cast<int>(len),
            static_cast<int>(table_type), static_cast<int>(rftab_list_count()));
    if (len == 0 || dst == nullptr) {
        log_dbg("get_rf_specified_file Invalid parameter .");
        return kRetBadSize;
    }
    char name[kRftabNameSize];
    if (!rftab_list_find(table_type, name)) {
        log_dbg("get_rf_specified_file not find specified file,table_type:%d.", static_cast<int>(table_type));
        return -1;
    }
    char base[kCfgPathSize];
    cfg_get_rf_relate_path(base);
    // The bound is one below the buffer, so the text keeps at most len - 2
    // characters; a bound of 0 would leave dst unterminated.
    if (len < 2) {
        dst[0] = '\0';
    } else {
        snprintf(dst, len - 1, "%s%s", base, name);
    }
    log_dbg("get_rf_specified_file table_type:%d, charp_rftab:%s, m_rf_relate_path:%s, file name:%s.",
            static_cast<int>(table_type), name, base, dst);
    return 0;
}

int get_rf_code_full_file_name(uint32_t table_type, char (&dst)[kAmtPathSize]) {
    char file[kRfCodeNameSize] = {};
    get_rf_specified_file(file, sizeof(file), table_type);
    snprintf(dst, sizeof(dst) - 1, "%s", file);
    log_dbg("get_rf_code_full_file_name, file:%s, len:%lu, table_type:%d", dst,
            static_cast<unsigned long>(kAmtPathSize), static_cast<int>(table_type));
    return 0;
}

int read_binary_file(uint8_t* buf, const char* path, uint32_t offset, uint32_t len, uint32_t* readed_len) {
    if (readed_len != nullptr) *readed_len = 0;
    if (verbose_log()) log_dbg("read_binary_file start.");
    if (buf == nullptr || path == nullptr || path[0] == '\0' || readed_len == nullptr) {
        log_dbg("read_binary_file Invalid parameter .");
        return kRetNullArg;
    }
    UniqueFile file(fopen(path, "rb"));
    if (!file) {
        log_dbg("read_binary_file open file(%s) failure error:%d-%s", path, errno, strerror(errno));
        return -1;
    }
    if (!seek_to(file.get(), offset)) {
        log_dbg("read_binary_file call fseek failure error:%d-%s", errno, strerror(errno));
        return -1;
    }
    size_t count = fread(buf, 1, len, file.get());
    if (verbose_log()) log_dbg("readed return:%d, need:%d.", static_cast<int>(count), static_cast<int>(len));
    *readed_len = static_cast<uint32_t>(count);
    file.reset();
    if (verbose_log()) log_dbg("read_binary_file end.");
    return 0;
}

int modify_binary_file(const uint8_t* buf, const char* path, uint32_t offset, uint32_t len, uint32_t* writed_len) {
    if (writed_len != nullptr) *writed_len = 0;
    if (verbose_log()) log_dbg("modify_binary_file start.");
    if (buf == nullptr || path == nullptr || path[0] == '\0' || writed_len == nullptr) {
        log_dbg("modify_binary_file Invalid parameter .");
        return kRetNullArg;
    }
    // "rb+": the file must exist, and it is neither created nor shortened.
    UniqueFile file(fopen(path, "rb+"));
    if (!file) {
        log_dbg("modify_binary_file open file(%s) failure error:%d-%s", path, errno, strerror(errno));
        return -1;
    }
    if (!seek_to(file.get(), offset)) {
        log_dbg("modify_binary_file call fseek failure error:%d-%s", errno, strerror(errno));
        return -1;
    }
    size_t count = fwrite(buf, 1, len, file.get());
    if (verbose_log()) log_dbg("writed return:%d, need:%d.", static_cast<int>(count), static_cast<int>(len));
    // fwrite only fills the stream's buffer: the bytes reach the file at the
    // flush and the close, and a refusal there (a full disk) means they never
    // did. Counting them anyway would report a write that was lost.
    bool flushed = fflush(file.get()) == 0;
    int flush_errno = errno;
    bool closed = fclose(file.release()) == 0;
    if (!flushed || !closed) {
        int err = flushed ? errno : flush_errno;
        log_dbg("modify_binary_file flush of file(%s) failure error:%d-%s, nothing counted as written", path, err,
                strerror(err));
        return -1;
    }
    *writed_len = static_cast<uint32_t>(count);
    if (!amt_sync_ritual()) {
        log_dbg("modify_binary_file stopped during the sync of file(%s).", path);
        return 0;
    }
    if (verbose_log()) log_dbg("modify_binary_file end.");
    return 0;
}

bool slice_write_fits(const char* who, uint32_t len, std::span<const uint8_t> data) {
    if (len <= data.size()) return true;
    log_dbg("%s len:%u reaches past the %u bytes of data the request holds: refused, no file touched.", who, len,
            static_cast<unsigned>(data.size()));
    return false;
}
