// Loading the report's data: one query for the phones that pass the filter
// (with their run's station, host and plan) and one pass over the steps,
// kept when their phone was. The SQL is the same for SQLite and PostgreSQL;
// only the placeholders ("?1" or "$1") and the way rows come differ.
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>

#include "pc/results/pg_handle.hpp"
#include "pc/results/report_data.hpp"
#include "pc/results/sqlite_handle.hpp"

namespace results {

namespace {

// ?1 since, ?2 until, ?3 station, ?4 fixture slot, ?5 plan.
const char kSlotQuery[] =
    "SELECT s.id, s.fixture_slot, s.board, s.started, s.verdict, s.reason, r.station, r.host "
    "FROM slots s JOIN runs r ON r.id = s.run_id "
    "WHERE (?1 = '' OR s.started >= ?1) AND (?2 = '' OR s.started < ?2) "
    "AND (CAST(?3 AS bigint) IS NULL OR r.station = CAST(?3 AS bigint)) "
    "AND (CAST(?4 AS bigint) IS NULL OR s.fixture_slot = CAST(?4 AS bigint)) "
    "AND (?5 = '' OR r.plan = ?5 OR r.plan LIKE '%/' || ?5) "
    "ORDER BY s.started, s.id";
const char kStepQuery[] = "SELECT slot_id, name, verdict, reason, duration_ms, number, low, high FROM steps";

// A row of either database: text(i) is nullopt for NULL, number(i) NaN.
// SQLite hands its numbers over as they are stored (formatting them as text
// would cost more than the whole scan); PostgreSQL's text is parsed in place.
class SqliteRow {
public:
    explicit SqliteRow(const Statement& q) : q_(q) {}
    std::optional<std::string_view> text(int i) const {
        return q_.is_null(i) ? std::nullopt : std::optional(q_.text(i));
    }
    double number(int i) const { return q_.is_null(i) ? NAN : q_.real(i); }

private:
    const Statement& q_;
};

class PgRow {
public:
    PgRow(const PGresult* rows, int row) : rows_(rows), row_(row) {}
    std::optional<std::string_view> text(int i) const {
        if (PQgetisnull(rows_, row_, i)) return std::nullopt;
        return std::string_view(PQgetvalue(rows_, row_, i), static_cast<size_t>(PQgetlength(rows_, row_, i)));
    }
    double number(int i) const {
        const std::optional<std::string_view> t = text(i);
        double x = NAN;
        if (t) std::from_chars(t->data(), t->data() + t->size(), x);
        return x;
    }

private:
    const PGresult* rows_;
    int row_;
};

struct StringHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

class Builder {
public:
    explicit Builder(ReportData* out) : out_(out) {}

    template <typename Row>
    void slot(const Row& f) {
        const uint32_t index = static_cast<uint32_t>(out_->slots.size());
        SlotFact s;
        const double fixture_slot = f.number(1);
        s.fixture_slot = std::isnan(fixture_slot) ? 1 : static_cast<int64_t>(fixture_slot);
        s.board = f.text(2).value_or("");
        s.started = f.text(3).value_or("");
        if (f.text(4)) s.verdict = verdict_of(std::string(*f.text(4)));
        s.reason = f.text(5).value_or("");
        const std::string fixture = std::string(f.text(6).value_or("-")) + "@" + std::string(f.text(7).value_or(""));
        s.fixture = intern(fixture, fixture_ids_, &out_->fixtures);
        out_->slots.push_back(std::move(s));
        slot_ids_.emplace(std::string(f.text(0).value_or("")), index);
    }

    template <typename Row>
    void step(const Row& f) {
        const auto found = slot_ids_.find(f.text(0).value_or(""));
        if (found == slot_ids_.end()) return;
        StepFact s;
        s.slot = found->second;
        s.name = intern(f.text(1).value_or(""), name_ids_, &out_->step_names);
        const std::string_view verdict = f.text(2).value_or("");
        s.outcome = verdict == "pass" ? StepOutcome::kPass : verdict == "fail" ? StepOutcome::kFail : StepOutcome::kOther;
        if (s.outcome == StepOutcome::kFail) {
            s.reason = intern(f.text(3).value_or(""), reason_ids_, &out_->reasons);
            SlotFact& slot = out_->slots[s.slot];
            if (slot.failed_step == 0) slot.failed_step = s.name + 1;
        }
        s.duration_ms = f.number(4);
        s.number = f.number(5);
        s.low = f.number(6);
        s.high = f.number(7);
        out_->steps.push_back(s);
    }

private:

    static uint32_t intern(std::string_view text, std::unordered_map<std::string, uint32_t, StringHash, std::equal_to<>>& ids,
                           std::vector<std::string>* names) {
        const auto found = ids.find(text);
        if (found != ids.end()) return found->second;
        const uint32_t id = static_cast<uint32_t>(names->size());
        names->emplace_back(text);
        ids.emplace(std::string(text), id);
        return id;
    }

    ReportData* out_;
    std::unordered_map<std::string, uint32_t, StringHash, std::equal_to<>> slot_ids_;
    std::unordered_map<std::string, uint32_t, StringHash, std::equal_to<>> fixture_ids_;
    std::unordered_map<std::string, uint32_t, StringHash, std::equal_to<>> name_ids_;
    std::unordered_map<std::string, uint32_t, StringHash, std::equal_to<>> reason_ids_{{"", 0}};
};

std::vector<std::optional<std::string>> filter_params(const ReportFilter& f) {
    return {f.since, f.until, f.station ? std::optional(std::to_string(*f.station)) : std::nullopt,
            f.fixture_slot ? std::optional(std::to_string(*f.fixture_slot)) : std::nullopt, f.plan};
}

template <typename Sink>
bool sqlite_rows(sqlite3* db, const char* sql, const std::vector<std::optional<std::string>>& params, Sink sink,
                 std::string* error) {
    Statement q;
    if (!q.prepare(db, sql, error)) return false;
    for (size_t i = 0; i < params.size(); ++i) {
        if (params[i]) q.bind(static_cast<int>(i + 1), std::string_view(*params[i])); else q.bind_null(static_cast<int>(i + 1));
    }
    const SqliteRow row(q);
    int rc;
    while ((rc = q.step()) == SQLITE_ROW) sink(row);
    if (rc == SQLITE_DONE) return true;
    *error = sqlite3_errmsg(db);
    return false;
}

bool load_sqlite(const std::string& path, const ReportFilter& filter, ReportData* out, std::string* error) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        *error = "no results file " + path;
        return false;
    }
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    SqliteDb db(raw);
    if (rc != SQLITE_OK) {
        *error = path + ": " + (raw != nullptr ? sqlite3_errmsg(raw) : "cannot open");
        return false;
    }
    sqlite3_busy_timeout(db.get(), 5000);
    // One read transaction: the steps belong to the same moment as the slots.
    if (!exec(db.get(), "BEGIN", error)) return false;
    Builder builder(out);
    const bool ok = sqlite_rows(db.get(), kSlotQuery, filter_params(filter), [&](const auto& f) { builder.slot(f); }, error) &&
                    sqlite_rows(db.get(), kStepQuery, {}, [&](const auto& f) { builder.step(f); }, error);
    std::string ignored;
    exec(db.get(), "COMMIT", &ignored);
    if (!ok) *error = path + ": " + *error;
    return ok;
}

// "?1" -> "$1": PostgreSQL's placeholders.
std::string pg_sql(const char* sql) {
    std::string text = sql;
    for (char& c : text) {
        if (c == '?') c = '$';
    }
    return text;
}

// The rows of `sql` through a cursor, a slice at a time, so that a million
// steps never sit in libpq's memory at once.
template <typename Sink>
bool pg_rows(PGconn* conn, const std::string& sql, const std::vector<std::optional<std::string>>& params, Sink sink,
             std::string* error) {
    std::vector<const char*> values;
    for (const auto& p : params) values.push_back(p ? p->c_str() : nullptr);
    if (!pg_exec(conn, "DECLARE report_rows NO SCROLL CURSOR FOR " + sql, values, error)) return false;
    for (;;) {
        PgResult rows;
        if (!pg_exec(conn, "FETCH 20000 FROM report_rows", {}, error, &rows)) return false;
        const int n = PQntuples(rows.get());
        for (int r = 0; r < n; ++r) sink(PgRow(rows.get(), r));
        if (n == 0) break;
    }
    return pg_exec(conn, "CLOSE report_rows", {}, error);
}

bool load_postgres(const std::string& url, const ReportFilter& filter, ReportData* out, std::string* error) {
    PgConn conn = pg_connect(url, 10, error);
    if (!conn) return false;
    Builder builder(out);
    // REPEATABLE READ: the steps belong to the same moment as the slots.
    const bool ok = pg_exec(conn.get(), "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY", {}, error) &&
                    pg_rows(conn.get(), pg_sql(kSlotQuery), filter_params(filter), [&](const auto& f) { builder.slot(f); },
                            error) &&
                    pg_rows(conn.get(), kStepQuery, {}, [&](const auto& f) { builder.step(f); }, error) &&
                    pg_exec(conn.get(), "COMMIT", {}, error);
    return ok;
}

}  // namespace

bool load_report_data(const std::string& source, const ReportFilter& filter, ReportData* out, std::string* error) {
    if (source.rfind("postgresql://", 0) == 0 || source.rfind("postgres://", 0) == 0) {
        return load_postgres(source, filter, out, error);
    }
    return load_sqlite(source, filter, out, error);
}

}  // namespace results
