// The SQLite file's schema and its versions. PRAGMA user_version holds the
// version; a file is brought forward one migration at a time, each in the
// transaction that also bumps the version, so a file is always at one
// version or the next, never between. Nothing is ever dropped: a later
// version adds tables, columns and indexes.
//
//   1  runs, slots and steps, with the indexes the report reads by
//   2  the outbox for a line's server: a `sent` mark on every row (NULL:
//      still to send), and partial indexes over the unsent rows
#pragma once

#include <sqlite3.h>
#include <string>

namespace results {

constexpr int kLocalSchemaVersion = 2;

// Brings the file to `target` (the latest by default) inside a write
// transaction. False, with the reason, on an error or a file whose version
// is newer than this program's.
bool migrate_local(sqlite3* db, std::string* error, int target = kLocalSchemaVersion);

// PRAGMA user_version, or -1 on an error.
int local_schema_version(sqlite3* db);

}  // namespace results
