#include "pg_scratch_server.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace results_test {

namespace {

const std::string kBin = OVTA_PG_BIN_DIR;

}  // namespace

PgScratchServer::~PgScratchServer() {
    std::string ignored;
    if (running_) stop(true, &ignored);
    if (!dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
}

bool PgScratchServer::run(const std::string& command, std::string* error) const {
    const std::string as = user_.empty() ? command : "runuser -u " + user_ + " -- " + command;
    const std::string line = as + " >>" + dir_ + "/server.log 2>&1";
    const int status = std::system(line.c_str());
    if (status == 0) return true;
    *error = "`" + command + "` failed (status " + std::to_string(status) + "); see " + dir_ + "/server.log";
    return false;
}

bool PgScratchServer::create(std::string* error) {
    char name[] = "/tmp/ovta-pg-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        *error = "mkdtemp failed";
        return false;
    }
    dir_ = name;
    if (geteuid() == 0) {
        const passwd* pw = getpwnam("postgres");
        if (pw == nullptr) {
            *error = "running as root and there is no `postgres` user to run the server as (install postgresql)";
            return false;
        }
        user_ = "postgres";
        if (chown(dir_.c_str(), pw->pw_uid, pw->pw_gid) != 0) {
            *error = "cannot hand " + dir_ + " to postgres";
            return false;
        }
    }
    chmod(dir_.c_str(), 0755);
    // The log sits beside the cluster; the server's user writes it too.
    const std::string log = dir_ + "/server.log";
    if (FILE* f = fopen(log.c_str(), "w")) fclose(f);
    if (!user_.empty()) {
        const passwd* pw = getpwnam(user_.c_str());
        if (chown(log.c_str(), pw->pw_uid, pw->pw_gid) != 0) {
            *error = "cannot hand the log to postgres";
            return false;
        }
    }
    if (!run(kBin + "/initdb -D " + dir_ + "/data -U postgres -A trust -E UTF8 --no-sync", error)) return false;
    return start(error);
}

bool PgScratchServer::start(std::string* error) {
    // No TCP at all: the socket in the folder is the only way in. fsync off:
    // a test server need not outlive a power cut.
    const std::string options = "-c listen_addresses='' -k " + dir_ + " -c fsync=off -c max_connections=60";
    if (!run(kBin + "/pg_ctl -D " + dir_ + "/data -l " + dir_ + "/server.log -w -t 60 -o \"" + options + "\" start",
             error)) {
        return false;
    }
    running_ = true;
    return true;
}

bool PgScratchServer::stop(bool immediate, std::string* error) {
    running_ = false;
    return run(kBin + "/pg_ctl -D " + dir_ + "/data -w -t 60 -m " + (immediate ? "immediate" : "fast") + " stop", error);
}

std::string PgScratchServer::url() const { return "postgresql:///postgres?host=" + dir_ + "&user=postgres"; }

}  // namespace results_test
