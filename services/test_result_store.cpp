#include "services/test_result_store.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

#include "wire/bytes.hpp"
#include "process/config.hpp"
#include "process/pub_util.hpp"
#include "protocol/verbose_scope.hpp"
#include "services/factory_files.hpp"
#include "services/file_replace.hpp"
#include "services/unique_file.hpp"

namespace {

constexpr size_t kReadLineSize = 500;     // a read sees lines in pieces of at most 498 bytes
constexpr size_t kRewriteLineSize = 1024;  // a rewrite, in pieces of at most 1022 bytes
constexpr uint32_t kFreshPauseMs = 2000;

constexpr size_t kOffSiteNo = 16;
constexpr size_t kOffResult = 20;
constexpr size_t kOffDescription = 24;

bool is_digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

size_t read_store_piece(FILE* file, std::span<char> buf) {
    if (buf.empty()) return 0;
    std::fill(buf.begin(), buf.end(), '\0');
    const size_t max = buf.size() >= 2 ? buf.size() - 2 : 0;
    size_t n = 0;
    while (n < max) {
        int c = getc_unlocked(file);
        if (c == EOF) break;
        buf[n++] = static_cast<char>(c);
        if (c == '\n') break;
    }
    return n;
}

bool store_line_end(const char* line, size_t len, size_t* crlf) {
    const void* p = memmem(line, len, "\r\n", 2);
    if (p == nullptr) return false;
    *crlf = static_cast<size_t>(static_cast<const char*>(p) - line);
    return true;
}

size_t take_station_number(const char* line, size_t len, int32_t* number) {
    if (len == 0 || !is_digit(line[0])) return 0;
    if (len >= 2 && is_digit(line[1])) {
        *number = (line[0] - '0') * 10 + (line[1] - '0');
        return 2;
    }
    *number = line[0] - '0';
    return 1;
}

void parse_station_fields(const char* line, size_t cursor, size_t crlf, TestResultInfo* out) {
    out->station_result = 0;
    out->description_len = 0;
    memset(out->description, 0, sizeof(out->description));
    if (cursor < crlf && line[cursor] == ',') ++cursor;
    if (cursor < crlf && is_digit(line[cursor])) {
        out->station_result = static_cast<uint32_t>(line[cursor] - '0');
        ++cursor;
    }
    log_dbg("get_test_result_info station_result[%d]", static_cast<int>(out->station_result));
    if (cursor < crlf && line[cursor] == ',') {
        size_t n = crlf - (cursor + 1);
        if (n > kDescriptionMax) n = kDescriptionMax;
        memcpy(out->description, line + cursor + 1, n);
        out->description_len = n;
    }
    log_dbg("get_test_result_info test_description_a[%.*s]", static_cast<int>(out->description_len),
            out->description);
}

void format_test_result_line(StoreLine* out, int32_t station, int32_t result, const char* description,
                             size_t description_len) {
    *out = StoreLine{};
    int head = snprintf(out->text, sizeof(out->text), "%d,%d,", station, result);
    size_t pos = head > 0 ? static_cast<size_t>(head) : 0;
    const size_t room = kStoreLineMax - 2;  // the description stops where "\r\n" still fits
    for (size_t i = 0; i < description_len; ++i) {
        char c = description[i];
        if (c == '\r' || c == '\n') {
            ++out->dropped_line_ends;
        } else if (pos < room) {
            out->text[pos++] = c;
        } else {
            ++out->cut_bytes;
        }
    }
    out->text[pos++] = '\r';
    out->text[pos++] = '\n';
    out->len = pos;
}

int rewrite_test_result_lines(FILE* in, FILE* out, uint32_t site_no, const StoreLine& line) {
    char piece[kRewriteLineSize];
    bool found = false;
    int32_t number = 0;
    for (;;) {
        size_t len = read_store_piece(in, piece);
        if (len == 0) break;
        size_t crlf = 0;
        // Behind the match every piece is copied without a look.
        if (!found) {
            bool counts = store_line_end(piece, len, &crlf);
            log_dbg("modify_test_result_value line:[%s]", piece);
            if (counts) {
                take_station_number(piece, len, &number);
                log_dbg("modify_test_result_value station_num[%d]", number);
                if (static_cast<uint32_t>(number) == site_no) {
                    found = true;
                    if (fwrite(line.text, 1, line.len, out) != line.len) return -1;
                    continue;
                }
            }
        }
        if (fwrite(piece, 1, len, out) != len) return -1;
    }
    if (ferror(in) != 0) return -1;
    return found ? 1 : 0;
}

int amt_init_test_result_file() {
    char base[kCfgPathSize];
    cfg_get_amt_relate_path(base);
    char path[kAmtPathSize];
    amt_join_path(path, base, kTestResultFile);
    if (access(path, F_OK) == 0) {
        struct stat st {};
        if (stat(path, &st) == 0 && st.st_size != 0) {
            log_dbg("amt_init_test_result_file: %s exist.", path);
            return 0;
        }
        // Not removed: the fresh store is renamed over it below.
        log_dbg("amt_init_test_result_file: %s is empty, remove and re-create result_file.", path);
    }
    log_dbg("amt_init_test_result_file (%s).", path);
    char temp_path[kAmtPathSize];
    amt_join_path(temp_path, base, kTestResultTempFile);
    FileReplacement file("amt_init_test_result_file", path, temp_path);
    if (!file.open()) {
        log_dbg("amt_init_test_result_file open file(%s) failure. error:%d-%s.", path, errno, strerror(errno));
        return kRetResource;
    }
    for (int32_t station = 0; station < kFreshStations; ++station) {
        StoreLine line;
        format_test_result_line(&line, station, 0, "", 0);
        fwrite(line.text, 1, line.len, file.stream());
    }
    if (!file.commit()) return kRetResource;
    // The pause gives the storage time before the sync; a stop cuts it short.
    if (!pub_util_msleep(kFreshPauseMs) || !amt_run_sync()) return 0;
    log_dbg("amt_init_test_result_file (%s). OK", path);
    return 0;
}

void get_test_result_info(uint32_t site_no, TestResultInfo* out) {
    VerboseScope scope("get_test_result_info");
    *out = TestResultInfo{};
    char base[kCfgPathSize];
    cfg_get_amt_relate_path(base);
    char path[kAmtPathSize];
    amt_join_path(path, base, kTestResultFile);
    log_dbg("will open file(%s).", path);
    UniqueFile file(fopen(path, "r"));
    if (file == nullptr) {
        log_dbg(" open file(%s) fail. error:%d-%s.", path, errno, strerror(errno));
        out->result_code = kResultStoreFailed;
        return;
    }
    char piece[kReadLineSize];
    int32_t number = 0;
    for (;;) {
        size_t len = read_store_piece(file.get(), piece);
        if (len == 0) break;
        size_t crlf = 0;
        bool counts = store_line_end(piece, len, &crlf);
        log_dbg("get_test_result_info line:[%s]", piece);
        if (!counts) continue;
        size_t cursor = take_station_number(piece, len, &number);
        log_dbg("get_test_result_info station_num[%d]", number);
        if (static_cast<uint32_t>(number) != site_no) continue;
        parse_station_fields(piece, cursor, crlf, out);
        out->result_code = kResultStationFound;
        return;
    }
    if (ferror(file.get()) != 0) {
        // A store that opens but cannot be read (a directory, an I/O error)
        // is no store, not a store without the station.
        log_dbg("get_test_result_info read file(%s) fail. error:%d-%s.", path, errno, strerror(errno));
        out->result_code = kResultStoreFailed;
        return;
    }
    out->result_code = kResultNoStation;
}

int modify_test_result_value(const uint8_t* message, size_t size) {
    char base[kCfgPathSize];
    cfg_get_amt_relate_path(base);
    if (base[0] == '\0' || message == nullptr || size < kOffDescription) {
        log_dbg("modify_test_result_value parameter is NULL.");
        return kRetNullArg;
    }
    std::span<const uint8_t> msg(message, size);
    const uint32_t site_no = bytes::get_le32(msg, kOffSiteNo);
    const int32_t result = static_cast<int32_t>(bytes::get_le32(msg, kOffResult));
    const char* description = reinterpret_cast<const char*>(message + kOffDescription);
    StoreLine line;
    format_test_result_line(&line, static_cast<int32_t>(site_no), result, description,
                            strnlen(description, size - kOffDescription));
    if (line.dropped_line_ends != 0) {
        log_dbg("modify_test_result_value description: %zu CR/LF bytes left out to keep the line whole.",
                line.dropped_line_ends);
    }
    if (line.cut_bytes != 0) {
        log_dbg("modify_test_result_value description: last %zu bytes cut, the line holds %zu bytes with its CR LF.",
                line.cut_bytes, line.len);
    }

    char temp_path[kAmtPathSize];
    amt_join_path(temp_path, base, kTestResultTempFile);
    char path[kAmtPathSize];
    amt_join_path(path, base, kTestResultFile);
    log_dbg("will open temp file(%s).", temp_path);
    FileReplacement temp("modify_test_result_value", path, temp_path);
    if (!temp.open()) {
        log_dbg("modify_test_result_value open temp file(%s) failure. error:%d-%s.", temp_path, errno,
                strerror(errno));
        return kRetResource;
    }
    log_dbg("will open test_result file(%s).", path);
    int result_value = 0;
    {
        UniqueFile store(fopen(path, "r"));
        if (store == nullptr) {
            log_dbg(" open load test_result file(%s) fail.error:%d-%s.", path, errno, strerror(errno));
            result_value = kRetResource;
        } else if (rewrite_test_result_lines(store.get(), temp.stream(), site_no, line) < 0) {
            log_dbg("modify_test_result_value copy of test_result file(%s) failure. error:%d-%s.", path, errno,
                    strerror(errno));
            result_value = kRetResource;
        }
    }
    // Only a whole copy replaces the store; otherwise the temporary file goes.
    if (result_value == 0 && !temp.commit()) result_value = kRetResource;
    if (result_value != 0) temp.abandon();
    if (!amt_sync_ritual()) return result_value;
    log_dbg("end modify_test_result_value.");
    return result_value;
}
