// A thin owner of SQLite's connection and statement handles: each closes
// itself, and a statement binds and reads columns by position. Errors come
// back as SQLite's own message. Not shared between threads by itself: the
// store guards its connection with a mutex.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <sqlite3.h>
#include <string>
#include <string_view>

namespace results {

struct SqliteCloser {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StatementFinalizer {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using SqliteDb = std::unique_ptr<sqlite3, SqliteCloser>;

class Statement {
public:
    Statement() = default;
    // Prepares `sql` on `db`; false, with the reason, when it is wrong.
    bool prepare(sqlite3* db, std::string_view sql, std::string* error);

    void bind(int position, std::string_view text);
    void bind(int position, int64_t number);
    void bind(int position, double number);
    void bind(int position, std::optional<int64_t> number);
    void bind(int position, std::optional<double> number);
    void bind_null(int position);

    // SQLITE_ROW, SQLITE_DONE or an error code.
    int step();
    // Back to the start with the bindings cleared, ready for the next row.
    void reset();

    std::string_view text(int column) const;
    int64_t integer(int column) const;
    double real(int column) const;
    bool is_null(int column) const;

    sqlite3_stmt* get() const { return statement_.get(); }

private:
    std::unique_ptr<sqlite3_stmt, StatementFinalizer> statement_;
};

// Runs SQL that returns no rows (several statements may follow each other).
bool exec(sqlite3* db, const char* sql, std::string* error);

}  // namespace results
