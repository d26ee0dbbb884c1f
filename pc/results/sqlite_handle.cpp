#include "pc/results/sqlite_handle.hpp"

namespace results {

bool Statement::prepare(sqlite3* db, std::string_view sql, std::string* error) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &raw, nullptr) != SQLITE_OK) {
        *error = sqlite3_errmsg(db);
        sqlite3_finalize(raw);
        return false;
    }
    statement_.reset(raw);
    return true;
}

void Statement::bind(int position, std::string_view text) {
    sqlite3_bind_text(statement_.get(), position, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}
void Statement::bind(int position, int64_t number) { sqlite3_bind_int64(statement_.get(), position, number); }
void Statement::bind(int position, double number) { sqlite3_bind_double(statement_.get(), position, number); }
void Statement::bind(int position, std::optional<int64_t> number) {
    if (number) bind(position, *number); else bind_null(position);
}
void Statement::bind(int position, std::optional<double> number) {
    if (number) bind(position, *number); else bind_null(position);
}
void Statement::bind_null(int position) { sqlite3_bind_null(statement_.get(), position); }

int Statement::step() { return sqlite3_step(statement_.get()); }

void Statement::reset() {
    sqlite3_reset(statement_.get());
    sqlite3_clear_bindings(statement_.get());
}

std::string_view Statement::text(int column) const {
    const unsigned char* data = sqlite3_column_text(statement_.get(), column);
    if (data == nullptr) return {};
    return {reinterpret_cast<const char*>(data), static_cast<size_t>(sqlite3_column_bytes(statement_.get(), column))};
}
int64_t Statement::integer(int column) const { return sqlite3_column_int64(statement_.get(), column); }
double Statement::real(int column) const { return sqlite3_column_double(statement_.get(), column); }
bool Statement::is_null(int column) const { return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL; }

bool exec(sqlite3* db, const char* sql, std::string* error) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        *error = message != nullptr ? message : sqlite3_errmsg(db);
        sqlite3_free(message);
        return false;
    }
    return true;
}

}  // namespace results
