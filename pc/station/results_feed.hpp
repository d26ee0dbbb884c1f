// The station's runs, phones and steps into the results database as they
// go (--database): the run's row when the station starts, a phone's slot
// when its line is open, each step as it is settled, the slot's end with
// its verdict. The rows go into an SQLite file (by default results.db in the
// records folder, beside the runs' folders); a postgresql:// URL adds a
// sender thread that passes them on to the line's server, and they wait in
// that file while the server cannot be reached.
//
// Threads: the slot threads call the SlotWatcher side at once (the store
// has its own lock); the main thread opens and closes the feed. A failed
// write is said on stderr and never fails the phone: its JSON record and
// the JUnit file are still written.
//
// Built only with the results library (OVTA_RESULTS); a build without it
// has no --database.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "pc/results/outbox_sender.hpp"
#include "pc/results/store.hpp"
#include "pc/station/plan.hpp"
#include "pc/station/slot_watcher.hpp"

namespace station {

class ResultsFeed final : public SlotWatcher {
public:
    // `database`: a file, a postgresql:// URL, or empty for
    // RECORDS/results.db. Opens the file (creating it and its schema) and
    // adds the run's row; null, with the reason, when the file cannot be.
    static std::unique_ptr<ResultsFeed> open(const std::string& database, const std::string& records, const Plan& plan,
                                             std::string* error,
                                             results::Store::Sync sync = results::Store::Sync::kEveryCommit);
    ~ResultsFeed() override;

    void started(const SlotRecord& record) override;
    void step_done(const SlotRecord& record, const StepRecord& step) override;
    void finished(const SlotRecord& record) override;

    // Main thread, after every slot has ended: a last pass of the sender.
    // The rows still waiting for the line's server (0 without one), or -1
    // when the file cannot say.
    int64_t close();

    const std::string& run_id() const { return run_id_; }
    const std::string& file() const { return store_->path(); }
    // The line's server, or empty.
    const std::string& url() const { return url_; }

private:
    ResultsFeed() = default;
    std::string slot_id(const SlotRecord& record) const;
    bool add_slot(const SlotRecord& record, const std::string& id);
    void failed(const SlotRecord& record, const std::string& what, const std::string& error);

    std::unique_ptr<results::Store> store_;
    std::unique_ptr<results::SenderThread> sender_;
    std::string url_;
    std::string run_id_;
    size_t verdict_index_ = 0;  // the verdict step's index; 0: the plan writes none
    std::mutex mutex_;
    std::set<std::string> open_slots_;  // guarded by mutex_: slots added and not yet finished
};

}  // namespace station
