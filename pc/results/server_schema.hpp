// The line server's schema (PostgreSQL): the same three tables as the local
// file, keyed by the same ids, so that every station's rows go side by side
// and a row sent twice is stored once. Its version is in ovta_schema; each
// station makes or migrates it on connecting, under an advisory lock so that
// twenty stations starting together do it once.
//
//   1  runs, slots, steps and the report's indexes
#pragma once

#include <libpq-fe.h>
#include <string>

namespace results {

constexpr int kServerSchemaVersion = 1;

bool prepare_server_schema(PGconn* conn, std::string* error);

}  // namespace results
