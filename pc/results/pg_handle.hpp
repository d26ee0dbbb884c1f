// Owners of libpq's connection and result handles, and the few calls the
// sender and the report make: a statement with text parameters, and the
// reason of a failure in one line.
#pragma once

#include <libpq-fe.h>
#include <memory>
#include <string>
#include <vector>

namespace results {

struct PgConnCloser {
    void operator()(PGconn* conn) const { PQfinish(conn); }
};
struct PgResultClearer {
    void operator()(PGresult* result) const { PQclear(result); }
};
using PgConn = std::unique_ptr<PGconn, PgConnCloser>;
using PgResult = std::unique_ptr<PGresult, PgResultClearer>;

// Connects to `url` (postgresql://...), giving up after `timeout_s`
// seconds. Null, with the reason, on failure.
PgConn pg_connect(const std::string& url, int timeout_s, std::string* error);

// Runs `sql`, with $1.. taken from `params` (text; nullptr for NULL). True
// when it succeeded; the result (rows or none) in `*out` when asked for.
bool pg_exec(PGconn* conn, const std::string& sql, const std::vector<const char*>& params, std::string* error,
             PgResult* out = nullptr);

// libpq's message, on one line.
std::string pg_error(PGconn* conn);

}  // namespace results
