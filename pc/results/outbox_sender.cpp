#include "pc/results/outbox_sender.hpp"

#include "pc/results/server_schema.hpp"

namespace results {

namespace {

// Rows per server transaction: one INSERT with many VALUES, well below the
// protocol's 65535 parameters.
constexpr size_t kBatch = 400;
constexpr int kConnectTimeoutS = 5;

// "($1, $2, $3), ($4, $5, $6)": `rows` groups of `columns` parameters.
std::string value_groups(size_t rows, size_t columns) {
    std::string text;
    size_t n = 1;
    for (size_t r = 0; r < rows; ++r) {
        text += r == 0 ? "(" : ", (";
        for (size_t c = 0; c < columns; ++c) {
            if (c != 0) text += ", ";
            text += "$" + std::to_string(n++);
        }
        text += ")";
    }
    return text;
}

std::string number_text(double number) {
    char text[40];
    snprintf(text, sizeof(text), "%.17g", number);
    return text;
}

}  // namespace

bool OutboxSender::connect(std::string* error) {
    if (conn_ && PQstatus(conn_.get()) == CONNECTION_OK) return true;
    conn_ = pg_connect(url_, kConnectTimeoutS, error);
    if (!conn_) return false;
    if (!prepare_server_schema(conn_.get(), error)) {
        conn_.reset();
        return false;
    }
    return true;
}

bool OutboxSender::in_server_transaction(const std::string& sql, const std::vector<const char*>& params,
                                         std::string* error) {
    std::string ignored;
    if (pg_exec(conn_.get(), "BEGIN", {}, error) && pg_exec(conn_.get(), sql, params, error) &&
        pg_exec(conn_.get(), "COMMIT", {}, error)) {
        return true;
    }
    // Whatever happened, this connection's state is not to be trusted: a
    // new one next time. A COMMIT whose answer was lost may have committed;
    // the batch stays unmarked and the server ignores it when it comes again.
    conn_.reset();
    return false;
}

bool OutboxSender::send_runs(size_t* sent, bool* more, std::string* error) {
    std::vector<RunRow> rows;
    if (!store_.unsent_runs(kBatch, &rows, error)) return false;
    *more = rows.size() == kBatch;
    if (rows.empty()) return true;
    std::vector<std::string> numbers(rows.size());
    std::vector<const char*> params;
    std::vector<std::string> ids;
    for (size_t i = 0; i < rows.size(); ++i) {
        const RunRow& r = rows[i];
        if (r.station) numbers[i] = std::to_string(*r.station);
        for (const std::string* field : {&r.id, &r.plan, &r.plan_hash}) params.push_back(field->c_str());
        params.push_back(r.station ? numbers[i].c_str() : nullptr);
        params.push_back(r.host.c_str());
        params.push_back(r.started.c_str());
        ids.push_back(r.id);
    }
    const std::string sql = "INSERT INTO runs (id, plan, plan_hash, station, host, started) VALUES " +
                            value_groups(rows.size(), 6) + " ON CONFLICT (id) DO NOTHING";
    if (!in_server_transaction(sql, params, error) || !store_.mark_runs_sent(ids, error)) return false;
    *sent += rows.size();
    return true;
}

bool OutboxSender::send_slots(size_t* sent, bool* more, std::string* error) {
    std::vector<SlotRow> rows;
    if (!store_.unsent_slots(kBatch, &rows, error)) return false;
    *more = rows.size() == kBatch;
    if (rows.empty()) return true;
    std::vector<std::string> numbers(rows.size());
    std::vector<const char*> params;
    std::vector<SentSlot> marks;
    for (size_t i = 0; i < rows.size(); ++i) {
        const SlotRow& s = rows[i];
        numbers[i] = std::to_string(s.fixture_slot);
        params.push_back(s.id.c_str());
        params.push_back(s.run_id.c_str());
        params.push_back(numbers[i].c_str());
        params.push_back(s.device.c_str());
        params.push_back(s.board.c_str());
        params.push_back(s.started.c_str());
        params.push_back(s.ended.empty() ? nullptr : s.ended.c_str());
        params.push_back(s.verdict ? verdict_text(*s.verdict) : nullptr);
        params.push_back(s.reason.c_str());
        marks.push_back({s.id, s.ended});
    }
    // A slot's start may reach the server before its end: the end replaces
    // it, and nothing replaces an end.
    const std::string sql =
        "INSERT INTO slots (id, run_id, fixture_slot, device, board, started, ended, verdict, reason) VALUES " +
        value_groups(rows.size(), 9) +
        " ON CONFLICT (id) DO UPDATE SET ended = EXCLUDED.ended, verdict = EXCLUDED.verdict, reason = EXCLUDED.reason"
        " WHERE slots.ended IS NULL AND EXCLUDED.ended IS NOT NULL";
    if (!in_server_transaction(sql, params, error) || !store_.mark_slots_sent(marks, error)) return false;
    *sent += rows.size();
    return true;
}

bool OutboxSender::send_steps(size_t* sent, bool* more, std::string* error) {
    std::vector<StepRow> rows;
    if (!store_.unsent_steps(kBatch, &rows, error)) return false;
    *more = rows.size() == kBatch;
    if (rows.empty()) return true;
    // Five numbers per row as text (index, duration, value, limits), sized
    // before the pointers into them are taken.
    std::vector<std::string> numbers(rows.size() * 5);
    std::vector<const char*> params;
    std::vector<StepKey> keys;
    for (size_t i = 0; i < rows.size(); ++i) {
        const StepRow& s = rows[i];
        std::string* n = &numbers[i * 5];
        n[0] = std::to_string(s.index);
        n[1] = number_text(s.duration_ms);
        params.push_back(s.slot_id.c_str());
        params.push_back(n[0].c_str());
        for (const std::string* field : {&s.name, &s.command, &s.request, &s.answer, &s.measured, &s.limits, &s.verdict,
                                         &s.reason}) {
            params.push_back(field->c_str());
        }
        params.push_back(n[1].c_str());
        const std::optional<double>* optional_numbers[] = {&s.number, &s.low, &s.high};
        for (size_t k = 0; k < 3; ++k) {
            if (*optional_numbers[k]) n[2 + k] = number_text(**optional_numbers[k]);
            params.push_back(*optional_numbers[k] ? n[2 + k].c_str() : nullptr);
        }
        keys.push_back({s.slot_id, s.index});
    }
    const std::string sql =
        "INSERT INTO steps (slot_id, idx, name, command, request, answer, measured, limits, verdict, reason, "
        "duration_ms, number, low, high) VALUES " +
        value_groups(rows.size(), 14) + " ON CONFLICT (slot_id, idx) DO NOTHING";
    if (!in_server_transaction(sql, params, error) || !store_.mark_steps_sent(keys, error)) return false;
    *sent += rows.size();
    return true;
}

bool OutboxSender::send_pending(size_t* sent, std::string* error) {
    *sent = 0;
    if (!connect(error)) return false;
    // Runs before their slots, slots before their steps: a reader of the
    // server never meets a step whose slot has not arrived, but for a slot
    // that starts while this pass runs (it comes with the next pass).
    for (auto part : {&OutboxSender::send_runs, &OutboxSender::send_slots, &OutboxSender::send_steps}) {
        bool more = true;
        while (more) {
            if (!(this->*part)(sent, &more, error)) return false;
        }
    }
    return true;
}

SenderThread::SenderThread(Store& store, std::string url, std::chrono::milliseconds period,
                           std::chrono::milliseconds retry)
    : sender_(store, std::move(url)), period_(period), retry_(retry), thread_([this] { run(); }) {}

SenderThread::~SenderThread() { stop(); }

void SenderThread::wake() {
    std::lock_guard lock(mutex_);
    woken_ = true;
    changed_.notify_one();
}

std::string SenderThread::last_error() {
    std::lock_guard lock(mutex_);
    return last_error_;
}

bool SenderThread::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        changed_.notify_one();
    }
    if (thread_.joinable()) thread_.join();
    return drained_.load();
}

void SenderThread::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        const bool last = stopping_;
        woken_ = false;
        lock.unlock();
        size_t sent = 0;
        std::string error;
        const bool ok = sender_.send_pending(&sent, &error);
        drained_.store(ok);
        lock.lock();
        last_error_ = ok ? "" : error;
        if (last) return;
        changed_.wait_for(lock, ok ? period_ : retry_, [this] { return woken_ || stopping_; });
    }
}

}  // namespace results
