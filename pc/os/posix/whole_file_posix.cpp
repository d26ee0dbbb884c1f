// The Linux half of WholeFile: mkstemp beside the file, fsync, rename, and
// fsync of the folder, so that the rename itself is on the disk.
#include "pc/lib/whole_file.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {

std::unique_ptr<WholeFile> WholeFile::open(const std::string& path, std::string* error) {
    std::unique_ptr<WholeFile> f(new WholeFile());
    f->path_ = path;
    std::string temp = path + ".partXXXXXX";
    f->fd_ = mkstemp(temp.data());
    if (f->fd_ < 0) {
        *error = "cannot create a file beside " + path + ": " + strerror(errno);
        return nullptr;
    }
    f->temp_path_ = temp;
    return f;
}

WholeFile::~WholeFile() {
    if (fd_ >= 0) close(fd_);
    if (!committed_ && !temp_path_.empty()) unlink(temp_path_.c_str());
}

bool WholeFile::write(std::span<const uint8_t> bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool WholeFile::commit(std::string* error) {
    // mkstemp makes the file private (0600); the result is an ordinary file.
    if (fchmod(fd_, 0644) != 0 || fsync(fd_) != 0) {
        *error = "cannot finish " + temp_path_ + ": " + strerror(errno);
        return false;
    }
    close(fd_);
    fd_ = -1;
    if (rename(temp_path_.c_str(), path_.c_str()) != 0) {
        *error = "cannot rename " + temp_path_ + " to " + path_ + ": " + strerror(errno);
        return false;
    }
    committed_ = true;
    const size_t slash = path_.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path_.substr(0, slash);
    const int folder = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0 || fsync(folder) != 0) {
        *error = "cannot sync " + dir + ": " + strerror(errno);
        if (folder >= 0) close(folder);
        return false;
    }
    close(folder);
    return true;
}

}  // namespace tools
