#include "pc/results/pg_handle.hpp"

namespace results {

namespace {

std::string one_line(const char* message) {
    std::string text = message != nullptr ? message : "";
    for (char& c : text) {
        if (c == '\n') c = ' ';
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text.empty() ? "unknown error" : text;
}

}  // namespace

std::string pg_error(PGconn* conn) { return one_line(PQerrorMessage(conn)); }

PgConn pg_connect(const std::string& url, int timeout_s, std::string* error) {
    const std::string timeout = std::to_string(timeout_s);
    // expand_dbname: the URL's own parameters apply, and the time limit
    // comes on top.
    const char* keys[] = {"dbname", "connect_timeout", "application_name", nullptr};
    const char* values[] = {url.c_str(), timeout.c_str(), "ovta-station", nullptr};
    PgConn conn(PQconnectdbParams(keys, values, 1));
    if (!conn) {
        *error = "out of memory";
        return nullptr;
    }
    if (PQstatus(conn.get()) != CONNECTION_OK) {
        *error = pg_error(conn.get());
        return nullptr;
    }
    // Notices (a table that already exists) are no one's business here.
    PQsetNoticeProcessor(conn.get(), [](void*, const char*) {}, nullptr);
    return conn;
}

bool pg_exec(PGconn* conn, const std::string& sql, const std::vector<const char*>& params, std::string* error,
             PgResult* out) {
    // Without parameters, the simple protocol: several statements may follow
    // each other (a migration).
    PgResult result(params.empty() ? PQexec(conn, sql.c_str())
                                   : PQexecParams(conn, sql.c_str(), static_cast<int>(params.size()), nullptr,
                                                  params.data(), nullptr, nullptr, 0));
    const ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        *error = result ? one_line(PQresultErrorMessage(result.get())) : pg_error(conn);
        if (*error == "unknown error") *error = pg_error(conn);
        return false;
    }
    if (out != nullptr) *out = std::move(result);
    return true;
}

}  // namespace results
