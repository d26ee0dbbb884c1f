// Host properties: each property is a file named after it in
// /run/ovta-amt/properties/, holding its value. A write goes to a temporary
// file that is then renamed over the property, so a reader sees the old value
// or the new one, never a part.
//
// The write uses only async-signal-safe calls (mkdir, open, write, fsync,
// close, rename and the string functions that POSIX lists as safe), so the
// same code serves property_set and the crash path's property_set_async_safe;
// the two use different temporary names so that a crash in the middle of an
// ordinary write does not share its file.
#include "platform/async_safe_text.hpp"
#include "platform/platform.hpp"

#include <cerrno>
#include <cstdio>  // rename
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr const char kPropDir[] = "/run/ovta-amt/properties";
constexpr size_t kKeyMax = 200;
constexpr size_t kPathSize = 300;

bool valid_key(const char* key) {
    if (key == nullptr || key[0] == '\0' || strnlen(key, kKeyMax + 1) > kKeyMax) return false;
    return strchr(key, '/') == nullptr && strcmp(key, ".") != 0 && strcmp(key, "..") != 0;
}

// A bounded text builder without stdio.
struct PathText {
    char text[kPathSize] = {};
    size_t len = 0;
    bool ok = true;

    PathText& add(const char* s) {
        size_t n = strlen(s);
        if (!ok || n >= sizeof(text) - len) {
            ok = false;
            return *this;
        }
        memcpy(text + len, s, n);
        len += n;
        text[len] = '\0';
        return *this;
    }
    PathText& add_number(unsigned long v) {
        char digits[24];
        digits[append_decimal(digits, 0, sizeof(digits), v)] = '\0';
        return add(digits);
    }
};

int make_dirs() {
    char path[sizeof(kPropDir)];
    memcpy(path, kPropDir, sizeof(kPropDir));
    for (char* p = path + 1; *p; ++p) {
        if (*p != '/') continue;
        *p = '\0';
        if (mkdir(path, 0755) != 0 && errno != EEXIST) return -1;
        *p = '/';
    }
    if (mkdir(path, 0755) != 0 && errno != EEXIST) return -1;
    return 0;
}

int write_property(const char* key, const char* value, const char* tmp_tag) {
    if (!valid_key(key) || value == nullptr || strnlen(value, kPropValueMax) >= kPropValueMax) return -1;
    if (make_dirs() != 0) return -1;
    PathText path;
    path.add(kPropDir).add("/").add(key);
    PathText tmp;
    tmp.add(kPropDir).add("/.").add(key).add(".").add_number(static_cast<unsigned long>(getpid())).add(tmp_tag).add(".tmp");
    if (!path.ok || !tmp.ok) return -1;
    int fd = open(tmp.text, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return -1;
    size_t len = strlen(value);
    bool ok = write(fd, value, len) == static_cast<ssize_t>(len);
    ok = (fsync(fd) == 0) && ok;
    ok = (close(fd) == 0) && ok;
    if (!ok || rename(tmp.text, path.text) != 0) {
        unlink(tmp.text);
        return -1;
    }
    return 0;
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    if (value == nullptr) return 0;
    value[0] = '\0';
    ssize_t n = -1;
    if (valid_key(key)) {
        PathText path;
        path.add(kPropDir).add("/").add(key);
        int fd = path.ok ? open(path.text, O_RDONLY | O_CLOEXEC) : -1;
        if (fd >= 0) {
            n = read(fd, value, kPropValueMax - 1);
            close(fd);
        }
    }
    if (n < 0) {
        if (default_value == nullptr) return 0;
        size_t len = strnlen(default_value, kPropValueMax - 1);
        memcpy(value, default_value, len);
        value[len] = '\0';
        return static_cast<int>(len);
    }
    value[n] = '\0';
    return static_cast<int>(n);
}

int property_set(const char* key, const char* value) { return write_property(key, value, ""); }

int property_set_async_safe(const char* key, const char* value) { return write_property(key, value, ".crash"); }

}  // namespace platform
