#include "pc/results/server_schema.hpp"

#include "pc/results/pg_handle.hpp"

namespace results {

namespace {

// The advisory lock's key: any number the line's other users leave alone.
constexpr const char* kSchemaLock = "SELECT pg_advisory_xact_lock(74200020)";

// Migration N takes the server from version N-1 to N.
const char* const kMigrations[] = {
    "CREATE TABLE runs ("
    "  id text PRIMARY KEY,"
    "  plan text NOT NULL,"
    "  plan_hash text NOT NULL,"
    "  station bigint,"
    "  host text NOT NULL,"
    "  started text NOT NULL,"
    "  received timestamptz NOT NULL DEFAULT now());"
    "CREATE TABLE slots ("
    "  id text PRIMARY KEY,"
    "  run_id text NOT NULL,"
    "  fixture_slot bigint NOT NULL,"
    "  device text NOT NULL,"
    "  board text NOT NULL,"
    "  started text NOT NULL,"
    "  ended text,"
    "  verdict text CHECK (verdict IN ('pass', 'fail', 'unknown')),"
    "  reason text NOT NULL);"
    "CREATE INDEX slots_by_start ON slots(started);"
    "CREATE INDEX slots_by_run ON slots(run_id);"
    "CREATE TABLE steps ("
    "  slot_id text NOT NULL,"
    "  idx bigint NOT NULL,"
    "  name text NOT NULL,"
    "  command text NOT NULL,"
    "  request text NOT NULL,"
    "  answer text NOT NULL,"
    "  measured text NOT NULL,"
    "  limits text NOT NULL,"
    "  verdict text NOT NULL,"
    "  reason text NOT NULL,"
    "  duration_ms double precision NOT NULL,"
    "  number double precision,"
    "  low double precision,"
    "  high double precision,"
    "  PRIMARY KEY (slot_id, idx));",
};
static_assert(sizeof(kMigrations) / sizeof(kMigrations[0]) == kServerSchemaVersion);

}  // namespace

bool prepare_server_schema(PGconn* conn, std::string* error) {
    std::string ignored;
    if (!pg_exec(conn, "BEGIN", {}, error)) return false;
    PgResult version_rows;
    bool ok = pg_exec(conn, kSchemaLock, {}, error) &&
              pg_exec(conn, "CREATE TABLE IF NOT EXISTS ovta_schema (version integer NOT NULL)", {}, error) &&
              pg_exec(conn, "SELECT max(version) FROM ovta_schema", {}, error, &version_rows);
    int version = 0;
    if (ok && !PQgetisnull(version_rows.get(), 0, 0)) version = std::stoi(PQgetvalue(version_rows.get(), 0, 0));
    if (ok && version > kServerSchemaVersion) {
        *error = "the server's schema is version " + std::to_string(version) + ", newer than this program's " +
                 std::to_string(kServerSchemaVersion) + ": use a newer ovta-station";
        ok = false;
    }
    for (; ok && version < kServerSchemaVersion; ++version) {
        const std::string next = std::to_string(version + 1);
        ok = pg_exec(conn, kMigrations[version], {}, error) &&
             pg_exec(conn, "DELETE FROM ovta_schema", {}, error) &&
             pg_exec(conn, "INSERT INTO ovta_schema VALUES ($1)", {next.c_str()}, error);
    }
    if (!ok) {
        pg_exec(conn, "ROLLBACK", {}, &ignored);
        return false;
    }
    return pg_exec(conn, "COMMIT", {}, error);
}

}  // namespace results
