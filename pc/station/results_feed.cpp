#include "pc/station/results_feed.hpp"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "pc/results/plan_hash.hpp"
#include "pc/results/row_ids.hpp"

namespace station {
namespace {

bool is_server_url(const std::string& database) {
    return database.rfind("postgresql://", 0) == 0 || database.rfind("postgres://", 0) == 0;
}

// The plan file's fingerprint; empty when it can no longer be read.
std::string plan_hash(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "";
    std::ostringstream text;
    text << in.rdbuf();
    return results::sha256_hex(text.str());
}

// The phone's verdict in the database: a phone stopped by Ctrl-C is
// neither pass nor fail.
results::Verdict slot_verdict(const SlotRecord& record) {
    if (record.passed) return results::Verdict::kPass;
    if (record.unknown || record.stopped) return results::Verdict::kUnknown;
    return results::Verdict::kFail;
}

}  // namespace

std::unique_ptr<ResultsFeed> ResultsFeed::open(const std::string& database, const std::string& records,
                                               const Plan& plan, std::string* error, results::Store::Sync sync) {
    std::unique_ptr<ResultsFeed> feed(new ResultsFeed());
    const bool server = is_server_url(database);
    const std::string file = database.empty() || server ? records + "/results.db" : database;
    feed->store_ = results::Store::open(file, error, sync);
    if (!feed->store_) return nullptr;
    results::RunRow run;
    run.started = results::utc_now_ms();
    if (plan.station) run.station = *plan.station;
    run.host = results::host_name();
    run.id = results::make_run_id(run.station, run.host, run.started);
    run.plan = plan.path;
    run.plan_hash = plan_hash(plan.path);
    if (!feed->store_->add_run(run, error)) return nullptr;
    feed->run_id_ = run.id;
    if (plan.verdict) feed->verdict_index_ = plan.steps.size() + 1;
    if (server) {
        feed->url_ = database;
        feed->sender_ = std::make_unique<results::SenderThread>(*feed->store_, database);
    }
    return feed;
}

ResultsFeed::~ResultsFeed() { close(); }

int64_t ResultsFeed::close() {
    if (!sender_) return 0;
    sender_->stop();
    sender_.reset();
    return store_->unsent_count();
}

std::string ResultsFeed::slot_id(const SlotRecord& record) const {
    return results::make_slot_id(run_id_, static_cast<int64_t>(record.slot),
                                 static_cast<int64_t>(record.phone == 0 ? 1 : record.phone));
}

void ResultsFeed::failed(const SlotRecord& record, const std::string& what, const std::string& error) {
    fprintf(stderr, "ovta-station: results database: slot %zu phone %zu: %s: %s\n", record.slot, record.phone,
            what.c_str(), error.c_str());
}

bool ResultsFeed::add_slot(const SlotRecord& record, const std::string& id) {
    results::SlotRow row;
    row.id = id;
    row.run_id = run_id_;
    row.fixture_slot = static_cast<int64_t>(record.slot);
    row.device = record.device;
    row.board = record.board;
    row.started = results::utc_now_ms();
    std::string error;
    if (!store_->add_slot(row, &error)) {
        failed(record, "the phone's start", error);
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    open_slots_.insert(id);
    return true;
}

void ResultsFeed::started(const SlotRecord& record) { add_slot(record, slot_id(record)); }

void ResultsFeed::step_done(const SlotRecord& record, const StepRecord& step) {
    results::StepRow row;
    row.slot_id = slot_id(record);
    row.index = static_cast<int64_t>(step.index);
    row.name = step.name;
    row.command = step.command;
    row.request = step.request.dump();
    row.answer = step.answer.dump();
    // The verdict step measures what the phone holds after it.
    const bool verdict = step.index == verdict_index_;
    row.measured = (verdict && !record.stored.is_null() ? record.stored : step.measured).dump();
    row.limits = step.limits.dump();
    row.verdict = verdict_name(step.verdict);
    row.reason = step.reason;
    row.duration_ms = step.seconds * 1000;
    std::string error;
    if (!store_->add_step(row, &error)) failed(record, "step " + std::to_string(step.index), error);
}

void ResultsFeed::finished(const SlotRecord& record) {
    const std::string id = slot_id(record);
    bool open = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open = open_slots_.erase(id) > 0;
    }
    // A phone whose line never opened has its slot only now.
    if (!open && !add_slot(record, id)) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_slots_.erase(id);
    }
    std::string reason = record.reason;
    if (record.stopped && reason.empty()) reason = "stopped (Ctrl-C)";
    std::string error;
    if (!store_->finish_slot(id, results::utc_now_ms(), slot_verdict(record), reason, &error)) {
        failed(record, "the phone's end", error);
    }
    if (sender_) sender_->wake();
}

}  // namespace station
