// Host properties: each property is a file named after it in
// /run/ovta-amt/properties/, holding its value. A write goes to a temporary
// file that is then renamed over the property, so a reader sees the old value
// or the new one, never a part.
#include "platform/platform.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr const char* kPropDir = "/run/ovta-amt/properties";

bool valid_key(const char* key) {
    if (key == nullptr || key[0] == '\0' || strlen(key) > 200) return false;
    return strchr(key, '/') == nullptr && strcmp(key, ".") != 0 && strcmp(key, "..") != 0;
}

int make_dirs() {
    char path[64];
    snprintf(path, sizeof(path), "%s", kPropDir);
    for (char* p = path + 1; *p; ++p) {
        if (*p != '/') continue;
        *p = '\0';
        if (mkdir(path, 0755) != 0 && errno != EEXIST) return -1;
        *p = '/';
    }
    if (mkdir(path, 0755) != 0 && errno != EEXIST) return -1;
    return 0;
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    if (value == nullptr) return 0;
    value[0] = '\0';
    ssize_t n = -1;
    if (valid_key(key)) {
        char path[300];
        snprintf(path, sizeof(path), "%s/%s", kPropDir, key);
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            n = read(fd, value, kPropValueMax - 1);
            close(fd);
        }
    }
    if (n < 0) {
        if (default_value == nullptr) return 0;
        snprintf(value, kPropValueMax, "%s", default_value);
        return static_cast<int>(strlen(value));
    }
    value[n] = '\0';
    return static_cast<int>(n);
}

int property_set(const char* key, const char* value) {
    if (!valid_key(key) || value == nullptr || strlen(value) >= kPropValueMax) return -1;
    if (make_dirs() != 0) return -1;
    char path[300];
    char tmp[320];
    snprintf(path, sizeof(path), "%s/%s", kPropDir, key);
    snprintf(tmp, sizeof(tmp), "%s/.%s.%d.tmp", kPropDir, key, static_cast<int>(getpid()));
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return -1;
    size_t len = strlen(value);
    bool ok = write(fd, value, len) == static_cast<ssize_t>(len);
    ok = (fsync(fd) == 0) && ok;
    ok = (close(fd) == 0) && ok;
    if (!ok || rename(tmp, path) != 0) {
        unlink(tmp);
        return -1;
    }
    return 0;
}

}  // namespace platform
