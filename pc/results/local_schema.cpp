#include "pc/results/local_schema.hpp"

#include "pc/results/sqlite_handle.hpp"

namespace results {

namespace {

// Migration N takes a file from version N-1 to N.
const char* const kMigrations[] = {
    // 1: the results.
    "CREATE TABLE runs ("
    "  id TEXT PRIMARY KEY,"
    "  plan TEXT NOT NULL,"
    "  plan_hash TEXT NOT NULL,"
    "  station INTEGER,"
    "  host TEXT NOT NULL,"
    "  started TEXT NOT NULL);"
    "CREATE TABLE slots ("
    "  id TEXT PRIMARY KEY,"
    "  run_id TEXT NOT NULL REFERENCES runs(id),"
    "  fixture_slot INTEGER NOT NULL,"
    "  device TEXT NOT NULL,"
    "  board TEXT NOT NULL,"
    "  started TEXT NOT NULL,"
    "  ended TEXT,"
    "  verdict TEXT CHECK (verdict IN ('pass', 'fail', 'unknown')),"
    "  reason TEXT NOT NULL);"
    "CREATE INDEX slots_by_start ON slots(started);"
    "CREATE INDEX slots_by_run ON slots(run_id);"
    "CREATE TABLE steps ("
    "  slot_id TEXT NOT NULL REFERENCES slots(id),"
    "  idx INTEGER NOT NULL,"
    "  name TEXT NOT NULL,"
    "  command TEXT NOT NULL,"
    "  request TEXT NOT NULL,"
    "  answer TEXT NOT NULL,"
    "  measured TEXT NOT NULL,"
    "  limits TEXT NOT NULL,"
    "  verdict TEXT NOT NULL,"
    "  reason TEXT NOT NULL,"
    "  duration_ms REAL NOT NULL,"
    "  number REAL,"
    "  low REAL,"
    "  high REAL,"
    "  PRIMARY KEY (slot_id, idx));",
    // 2: the outbox. Rows from before it have no mark: they are sent too.
    "ALTER TABLE runs ADD COLUMN sent INTEGER;"
    "ALTER TABLE slots ADD COLUMN sent INTEGER;"
    "ALTER TABLE steps ADD COLUMN sent INTEGER;"
    "CREATE INDEX runs_unsent ON runs(id) WHERE sent IS NULL;"
    "CREATE INDEX slots_unsent ON slots(id) WHERE sent IS NULL;"
    "CREATE INDEX steps_unsent ON steps(slot_id, idx) WHERE sent IS NULL;",
};
static_assert(sizeof(kMigrations) / sizeof(kMigrations[0]) == kLocalSchemaVersion);

}  // namespace

int local_schema_version(sqlite3* db) {
    Statement q;
    std::string error;
    if (!q.prepare(db, "PRAGMA user_version", &error) || q.step() != SQLITE_ROW) return -1;
    return static_cast<int>(q.integer(0));
}

bool migrate_local(sqlite3* db, std::string* error, int target) {
    // Another process may migrate the same file at the same moment: the
    // version is read again under the write lock.
    if (!exec(db, "BEGIN IMMEDIATE", error)) return false;
    int version = local_schema_version(db);
    bool ok = version >= 0;
    if (!ok) *error = sqlite3_errmsg(db);
    if (ok && version > kLocalSchemaVersion) {
        *error = "its schema is version " + std::to_string(version) + ", newer than this program's " +
                 std::to_string(kLocalSchemaVersion) + ": use a newer ovta-station";
        ok = false;
    }
    for (; ok && version < target; ++version) {
        ok = exec(db, kMigrations[version], error) &&
             exec(db, ("PRAGMA user_version = " + std::to_string(version + 1)).c_str(), error);
        if (!ok) *error = "migration to version " + std::to_string(version + 1) + ": " + *error;
    }
    std::string ignored;
    if (!ok) {
        exec(db, "ROLLBACK", &ignored);
        return false;
    }
    return exec(db, "COMMIT", error);
}

}  // namespace results
