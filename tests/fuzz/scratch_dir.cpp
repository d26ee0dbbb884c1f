#include "scratch_dir.hpp"

#include <cstdlib>
#include <fstream>
#include <pthread.h>
#include <sstream>

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

void write_file(const std::string& name, const void* data, size_t size) {
    std::ofstream out(amt_directory() + name, std::ios::binary | std::ios::trunc);
    out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}

std::string read_file(const std::string& name) {
    std::ifstream in(amt_directory() + name, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace fuzz
