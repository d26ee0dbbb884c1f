#include "pc/results/store.hpp"

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <sys/stat.h>
#include <thread>

#include "pc/results/local_schema.hpp"

namespace results {

namespace {

// How long one write waits for another process's lock before it tries
// again, and how many times it tries: a minute in all before it reports.
constexpr int kBusyTimeoutMs = 5000;
constexpr int kBusyTries = 12;

std::optional<double> number_in(const std::string& json_text, const char* key) {
    const nlohmann::json j = nlohmann::json::parse(json_text, nullptr, false);
    if (j.is_discarded()) return std::nullopt;
    if (key == nullptr) {
        if (j.is_number()) return j.get<double>();
        // A value with both a text and a number (a forwarded answer's word).
        if (j.is_object() && j.contains("number") && j["number"].is_number()) return j["number"].get<double>();
        return std::nullopt;
    }
    if (j.is_object() && j.contains(key) && j[key].is_number()) return j[key].get<double>();
    return std::nullopt;
}

}  // namespace

namespace {

// What another process's first open of the same file can make ours meet for
// a moment: its lock while it turns the file to WAL, or its log and
// shared-memory files half made. Tried again; anything else is an answer.
bool passing_conflict(sqlite3* db) {
    const int code = sqlite3_extended_errcode(db) & 0xFF;
    return code == SQLITE_BUSY || code == SQLITE_LOCKED || code == SQLITE_CANTOPEN || code == SQLITE_PROTOCOL;
}

// One try at opening `path` ready to write. Null, with the reason, on
// failure; `*again` when the failure may pass.
SqliteDb open_ready(const std::string& path, Store::Sync sync, std::string* error, bool* again) {
    *again = false;
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                   nullptr);
    SqliteDb db(raw);
    if (rc != SQLITE_OK) {
        *error = raw != nullptr ? sqlite3_errmsg(raw) : "cannot open";
        *again = raw != nullptr && passing_conflict(raw);
        return nullptr;
    }
    sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
    // WAL: readers never block the writer nor the writer them, and a commit
    // is one append to the log. FULL: the log is synced at every commit, so
    // a power cut keeps every committed step; NORMAL syncs it at checkpoints.
    Statement mode;
    std::string why;
    if (!mode.prepare(db.get(), "PRAGMA journal_mode = WAL", &why) || mode.step() != SQLITE_ROW ||
        mode.text(0) != "wal") {
        *error = "cannot use write-ahead logging: " + (why.empty() ? std::string(sqlite3_errmsg(db.get())) : why);
        *again = passing_conflict(db.get());
        return nullptr;
    }
    mode = Statement();
    const char* pragmas = sync == Store::Sync::kEveryCommit ? "PRAGMA synchronous = FULL; PRAGMA foreign_keys = ON"
                                                            : "PRAGMA synchronous = NORMAL; PRAGMA foreign_keys = ON";
    if (!exec(db.get(), pragmas, error) || !migrate_local(db.get(), error)) {
        *again = passing_conflict(db.get());
        return nullptr;
    }
    return db;
}

}  // namespace

std::unique_ptr<Store> Store::open(const std::string& path, std::string* error, Sync sync) {
    // A folder that is not there is no passing conflict: said at once.
    const std::string::size_type slash = path.rfind('/');
    struct stat st {};
    if (slash != std::string::npos && slash > 0 && stat(path.substr(0, slash).c_str(), &st) != 0) {
        *error = path + ": no folder " + path.substr(0, slash);
        return nullptr;
    }
    SqliteDb db;
    bool again = true;
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!db && again) {
        db = open_ready(path, sync, error, &again);
        if (!db && again) {
            if (std::chrono::steady_clock::now() > give_up) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    if (!db) {
        *error = path + ": " + *error;
        return nullptr;
    }
    std::unique_ptr<Store> store(new Store());
    store->db_ = std::move(db);
    store->path_ = path;
    return store;
}

bool Store::begin_immediate(std::string* error) {
    for (int tries = 0; tries < kBusyTries; ++tries) {
        if (exec(db_.get(), "BEGIN IMMEDIATE", error)) return true;
        if (sqlite3_errcode(db_.get()) != SQLITE_BUSY) return false;
    }
    return false;
}

bool Store::write(const std::function<bool(std::string*)>& body, std::string* error) {
    std::lock_guard lock(mutex_);
    if (in_transaction_) return body(error);
    if (!begin_immediate(error)) return false;
    if (!body(error)) {
        std::string ignored;
        exec(db_.get(), "ROLLBACK", &ignored);
        return false;
    }
    for (int tries = 0; tries < kBusyTries; ++tries) {
        if (exec(db_.get(), "COMMIT", error)) return true;
        if (sqlite3_errcode(db_.get()) != SQLITE_BUSY) break;
    }
    std::string ignored;
    exec(db_.get(), "ROLLBACK", &ignored);
    return false;
}

bool Store::in_one_transaction(const std::function<bool()>& body, std::string* error) {
    std::lock_guard lock(mutex_);
    if (in_transaction_) return body();
    if (!begin_immediate(error)) return false;
    in_transaction_ = true;
    const bool ok = body();
    in_transaction_ = false;
    std::string ignored;
    if (!ok) {
        exec(db_.get(), "ROLLBACK", &ignored);
        if (error->empty()) *error = "the transaction's body failed";
        return false;
    }
    if (exec(db_.get(), "COMMIT", error)) return true;
    exec(db_.get(), "ROLLBACK", &ignored);
    return false;
}

namespace {

bool run_one(Statement& q, sqlite3* db, std::string* error) {
    const int rc = q.step();
    q.reset();
    if (rc == SQLITE_DONE) return true;
    *error = sqlite3_errmsg(db);
    return false;
}

}  // namespace

bool Store::add_run(const RunRow& run, std::string* error) {
    return write([&](std::string* why) {
        Statement q;
        if (!q.prepare(db_.get(),
                       "INSERT INTO runs (id, plan, plan_hash, station, host, started) VALUES (?1, ?2, ?3, ?4, ?5, ?6)",
                       why)) {
            return false;
        }
        q.bind(1, run.id);
        q.bind(2, run.plan);
        q.bind(3, run.plan_hash);
        q.bind(4, run.station);
        q.bind(5, run.host);
        q.bind(6, run.started);
        return run_one(q, db_.get(), why);
    }, error);
}

bool Store::add_slot(const SlotRow& slot, std::string* error) {
    return write([&](std::string* why) {
        Statement q;
        if (!q.prepare(db_.get(),
                       "INSERT INTO slots (id, run_id, fixture_slot, device, board, started, ended, verdict, reason) "
                       "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)",
                       why)) {
            return false;
        }
        q.bind(1, slot.id);
        q.bind(2, slot.run_id);
        q.bind(3, slot.fixture_slot);
        q.bind(4, slot.device);
        q.bind(5, slot.board);
        q.bind(6, slot.started);
        if (slot.ended.empty()) q.bind_null(7); else q.bind(7, slot.ended);
        if (slot.verdict) q.bind(8, std::string_view(verdict_text(*slot.verdict))); else q.bind_null(8);
        q.bind(9, slot.reason);
        return run_one(q, db_.get(), why);
    }, error);
}

bool Store::add_step(const StepRow& step, std::string* error) {
    return write([&](std::string* why) {
        Statement q;
        if (!q.prepare(db_.get(),
                       "INSERT INTO steps (slot_id, idx, name, command, request, answer, measured, limits, verdict, "
                       "reason, duration_ms, number, low, high) "
                       "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14)",
                       why)) {
            return false;
        }
        q.bind(1, step.slot_id);
        q.bind(2, step.index);
        q.bind(3, step.name);
        q.bind(4, step.command);
        q.bind(5, step.request);
        q.bind(6, step.answer);
        q.bind(7, step.measured.empty() ? std::string_view("null") : std::string_view(step.measured));
        q.bind(8, step.limits.empty() ? std::string_view("{}") : std::string_view(step.limits));
        q.bind(9, step.verdict);
        q.bind(10, step.reason);
        q.bind(11, step.duration_ms);
        q.bind(12, number_in(step.measured, nullptr));
        q.bind(13, number_in(step.limits, "min"));
        q.bind(14, number_in(step.limits, "max"));
        return run_one(q, db_.get(), why);
    }, error);
}

bool Store::finish_slot(const std::string& slot_id, const std::string& ended, Verdict verdict, const std::string& reason,
                        std::string* error) {
    return write([&](std::string* why) {
        Statement q;
        if (!q.prepare(db_.get(), "UPDATE slots SET ended = ?2, verdict = ?3, reason = ?4, sent = NULL WHERE id = ?1",
                       why)) {
            return false;
        }
        q.bind(1, slot_id);
        q.bind(2, ended);
        q.bind(3, std::string_view(verdict_text(verdict)));
        q.bind(4, reason);
        if (!run_one(q, db_.get(), why)) return false;
        if (sqlite3_changes(db_.get()) == 1) return true;
        *why = "no slot " + slot_id;
        return false;
    }, error);
}

namespace {

// Reads up to `limit` rows of a query whose one parameter is that limit,
// each through `read`, onto the end of *out.
template <class Row, class Read>
bool select_rows(sqlite3* db, const char* sql, size_t limit, std::vector<Row>* out, std::string* error, Read read) {
    Statement q;
    if (!q.prepare(db, sql, error)) return false;
    q.bind(1, static_cast<int64_t>(limit));
    int rc;
    while ((rc = q.step()) == SQLITE_ROW) {
        Row row;
        read(q, row);
        out->push_back(std::move(row));
    }
    if (rc == SQLITE_DONE) return true;
    *error = sqlite3_errmsg(db);
    return false;
}

}  // namespace

bool Store::unsent_runs(size_t limit, std::vector<RunRow>* out, std::string* error) {
    std::lock_guard lock(mutex_);
    return select_rows(db_.get(), "SELECT id, plan, plan_hash, station, host, started FROM runs WHERE sent IS NULL LIMIT ?1",
                       limit, out, error, [](Statement& q, RunRow& r) {
                           r.id = q.text(0);
                           r.plan = q.text(1);
                           r.plan_hash = q.text(2);
                           if (!q.is_null(3)) r.station = q.integer(3);
                           r.host = q.text(4);
                           r.started = q.text(5);
                       });
}

bool Store::unsent_slots(size_t limit, std::vector<SlotRow>* out, std::string* error) {
    std::lock_guard lock(mutex_);
    return select_rows(db_.get(),
                       "SELECT id, run_id, fixture_slot, device, board, started, ended, verdict, reason FROM slots "
                       "WHERE sent IS NULL LIMIT ?1",
                       limit, out, error, [](Statement& q, SlotRow& s) {
                           s.id = q.text(0);
                           s.run_id = q.text(1);
                           s.fixture_slot = q.integer(2);
                           s.device = q.text(3);
                           s.board = q.text(4);
                           s.started = q.text(5);
                           s.ended = q.text(6);
                           if (!q.is_null(7)) s.verdict = verdict_of(std::string(q.text(7)));
                           s.reason = q.text(8);
                       });
}

bool Store::unsent_steps(size_t limit, std::vector<StepRow>* out, std::string* error) {
    std::lock_guard lock(mutex_);
    return select_rows(db_.get(),
                       "SELECT slot_id, idx, name, command, request, answer, measured, limits, verdict, reason, "
                       "duration_ms, number, low, high FROM steps WHERE sent IS NULL LIMIT ?1",
                       limit, out, error, [](Statement& q, StepRow& s) {
                           s.slot_id = q.text(0);
                           s.index = q.integer(1);
                           s.name = q.text(2);
                           s.command = q.text(3);
                           s.request = q.text(4);
                           s.answer = q.text(5);
                           s.measured = q.text(6);
                           s.limits = q.text(7);
                           s.verdict = q.text(8);
                           s.reason = q.text(9);
                           s.duration_ms = q.real(10);
                           if (!q.is_null(11)) s.number = q.real(11);
                           if (!q.is_null(12)) s.low = q.real(12);
                           if (!q.is_null(13)) s.high = q.real(13);
                       });
}

bool Store::mark_runs_sent(const std::vector<std::string>& ids, std::string* error) {
    return write([&](std::string* why) {
        Statement q;
        if (!q.prepare(db_.get(), "UPDATE runs SET sent = 1 WHERE id = ?1", why)) return false;
        for (const std::string& id : ids) {
            q.bind(1, id);
            if (!run_one(q, db_.get(), why)) return false;
        }
        return true;
    }, error);
}

bool Store::mark_slots_sent(const std::vector<SentSlot>& slots, std::string* error) {
    return write([&](std::string* why) {
        // Only the version that was sent: a slot that finished meanwhile
        // stays in the outbox.
        Statement q;
        if (!q.prepare(db_.get(), "UPDATE slots SET sent = 1 WHERE id = ?1 AND ended IS ?2", why)) return false;
        for (const SentSlot& s : slots) {
            q.bind(1, s.id);
            if (s.ended.empty()) q.bind_null(2); else q.bind(2, s.ended);
            if (!run_one(q, db_.get(), why)) return false;
        }
        return true;
    }, error);
}

bool Store::mark_steps_sent(const std::vector<StepKey>& keys, std::string* error) {
    return write([&](std::string* why) {
        Statement q;
        if (!q.prepare(db_.get(), "UPDATE steps SET sent = 1 WHERE slot_id = ?1 AND idx = ?2", why)) return false;
        for (const StepKey& k : keys) {
            q.bind(1, k.slot_id);
            q.bind(2, k.index);
            if (!run_one(q, db_.get(), why)) return false;
        }
        return true;
    }, error);
}

int64_t Store::unsent_count() {
    std::lock_guard lock(mutex_);
    Statement q;
    std::string error;
    if (!q.prepare(db_.get(),
                   "SELECT (SELECT count(*) FROM runs WHERE sent IS NULL) + (SELECT count(*) FROM slots WHERE sent IS "
                   "NULL) + (SELECT count(*) FROM steps WHERE sent IS NULL)",
                   &error) ||
        q.step() != SQLITE_ROW) {
        return -1;
    }
    return q.integer(0);
}

}  // namespace results
