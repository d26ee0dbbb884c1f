#include "scratch_dir.hpp"

#include <cstdlib>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "process/config.hpp"
#include "process/pub_util.hpp"

namespace fuzz {

const std::string& amt_directory() {
    static const std::string dir = [] {
        char pattern[] = "/tmp/ovta-fuzz-XXXXXX";
        const char* made = mkdtemp(pattern);
        std::string path = std::string(made ? made : "/tmp") + "/";
        cfg_init();
        cfg_set_amt_relate_path(path.c_str());
        return path;
    }();
    return dir;
}

void skip_waits() {
    static thread_local ThreadStopScope* scope = [] {
        auto* s = new ThreadStopScope();
        ThreadHandle self{pthread_self()};
        pub_util_kill_thread(&self);
        return s;
    }();
    (void)scope;
}

// Plain system calls: the targets call these for every input, and a stream
// object each time would cost more than the store operation under test.
void write_file(const std::string& name, const void* data, size_t size) {
    const int fd = open((amt_directory() + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) abort();
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = write(fd, p, size);
        if (n <= 0) abort();
        p += n;
        size -= static_cast<size_t>(n);
    }
    close(fd);
}

std::string read_file(const std::string& name) {
    std::string text;
    const int fd = open((amt_directory() + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return text;
    char buf[16384];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) text.append(buf, static_cast<size_t>(n));
    close(fd);
    return text;
}

}  // namespace fuzz
