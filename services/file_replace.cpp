#include "services/file_replace.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "process/pub_util.hpp"

namespace {

void copy_path(char (&out)[kAmtPathSize], const char* path) {
    memset(out, 0, sizeof(out));
    if (path != nullptr) strncpy(out, path, sizeof(out) - 1);
}

// Makes the rename itself durable. A directory that cannot be opened or
// synced costs only that: the new content is already on storage under one of
// the two names.
void sync_directory_of(const char* path) {
    char dir[kAmtPathSize];
    copy_path(dir, path);
    char* slash = strrchr(dir, '/');
    if (slash == nullptr) {
        strcpy(dir, ".");
    } else if (slash == dir) {
        dir[1] = '\0';
    } else {
        *slash = '\0';
    }
    int fd = ::open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

}  // namespace

FileReplacement::FileReplacement(const char* who, const char* target_path, const char* temp_path) : who_(who) {
    copy_path(target_path_, target_path);
    copy_path(temp_path_, temp_path);
}

FileReplacement::~FileReplacement() { abandon(); }

bool FileReplacement::open() {
    abandon();
    file_.reset(fopen(temp_path_, "w"));
    return file_ != nullptr;
}

void FileReplacement::abandon() {
    if (file_ == nullptr) return;
    file_.reset();
    remove(temp_path_);
}

bool FileReplacement::commit() {
    if (file_ == nullptr) return false;
    if (fflush(file_.get()) != 0 || ferror(file_.get()) != 0) {
        log_dbg("%s write file(%s) failure. error:%d-%s.", who_, target_path_, errno, strerror(errno));
        abandon();
        return false;
    }
    if (fsync(fileno(file_.get())) != 0) {
        log_dbg("%s fsync file(%s) failure. error:%d-%s.", who_, target_path_, errno, strerror(errno));
        abandon();
        return false;
    }
    if (fclose(file_.release()) != 0) {
        log_dbg("%s close file(%s) failure. error:%d-%s.", who_, target_path_, errno, strerror(errno));
        remove(temp_path_);
        return false;
    }
    if (rename(temp_path_, target_path_) != 0) {
        log_dbg("%s replace file(%s) failure. error:%d-%s.", who_, target_path_, errno, strerror(errno));
        remove(temp_path_);
        return false;
    }
    sync_directory_of(target_path_);
    return true;
}
