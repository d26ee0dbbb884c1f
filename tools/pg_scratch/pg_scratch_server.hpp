// A PostgreSQL server of its own for a test or a benchmark: a new cluster
// (initdb) in a temporary folder, listening on a Unix socket in that folder
// only, started and stopped with pg_ctl. initdb refuses to run as root, so
// under root the server runs as the `postgres` system user that Debian's
// package creates (runuser); otherwise as the caller.
#pragma once

#include <string>

namespace results_test {

class PgScratchServer {
public:
    PgScratchServer() = default;
    ~PgScratchServer();
    PgScratchServer(const PgScratchServer&) = delete;
    PgScratchServer& operator=(const PgScratchServer&) = delete;

    // Makes the cluster and starts it. False, with the reason, on failure.
    bool create(std::string* error);
    bool start(std::string* error);
    // `immediate`: no shutdown checkpoint, as when the server dies.
    bool stop(bool immediate, std::string* error);
    // "postgresql:///postgres?host=DIR&user=postgres".
    std::string url() const;
    const std::string& dir() const { return dir_; }

private:
    bool run(const std::string& command, std::string* error) const;

    std::string dir_;
    std::string user_;  // the server's user; empty: this process's
    bool running_ = false;
};

}  // namespace results_test
