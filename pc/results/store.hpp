// The station's local results file (records/results.db): SQLite in WAL mode,
// so readers (the report, the sender) never block the slots that write.
// Every call is its own transaction, committed before it returns (with
// synchronous=FULL by default), so a crash or a power cut loses at most the
// step under way. Several processes may write one file (two stations on one PC): a
// write waits for the other's lock (busy timeout) and tries again rather
// than give up, so no write is lost.
//
// Threads: any. One connection, guarded by a mutex; the slot threads of a
// station may share one Store, and each process opens its own.
//
// The outbox (rows whose `sent` is NULL) is what the line's server has not
// confirmed yet; outbox_sender.hpp sends it.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "pc/results/rows.hpp"
#include "pc/results/sqlite_handle.hpp"

namespace results {

// A finished slot as it was sent: marking it sent must not hide a later
// change (the slot finishing after its start was sent).
struct SentSlot {
    std::string id;
    std::string ended;
};

struct StepKey {
    std::string slot_id;
    int64_t index = 0;
};

class Store {
public:
    // How far a commit goes before the call returns.
    enum class Sync {
        kEveryCommit,  // synchronous=FULL: the log is synced; survives a power cut
        kOnCheckpoint, // synchronous=NORMAL: survives a crash of the program, not
                       // of the machine (the last commits before a power cut may go)
    };

    // Opens or creates the file and brings its schema to this version.
    static std::unique_ptr<Store> open(const std::string& path, std::string* error, Sync sync = Sync::kEveryCommit);

    bool add_run(const RunRow& run, std::string* error);
    // A phone's slot as it starts (no end, no verdict yet).
    bool add_slot(const SlotRow& slot, std::string* error);
    bool add_step(const StepRow& step, std::string* error);
    // The phone's end: its time, verdict and reason. The slot goes back into
    // the outbox.
    bool finish_slot(const std::string& slot_id, const std::string& ended, Verdict verdict, const std::string& reason,
                     std::string* error);

    // Runs `body` (which calls the add_ functions) as one transaction: for
    // bulk loads. Rolled back when `body` returns false.
    bool in_one_transaction(const std::function<bool()>& body, std::string* error);

    // The outbox, oldest first, at most `limit` rows of each.
    bool unsent_runs(size_t limit, std::vector<RunRow>* out, std::string* error);
    bool unsent_slots(size_t limit, std::vector<SlotRow>* out, std::string* error);
    bool unsent_steps(size_t limit, std::vector<StepRow>* out, std::string* error);
    bool mark_runs_sent(const std::vector<std::string>& ids, std::string* error);
    bool mark_slots_sent(const std::vector<SentSlot>& slots, std::string* error);
    bool mark_steps_sent(const std::vector<StepKey>& keys, std::string* error);
    // Rows of all three tables still to send, or -1 on an error.
    int64_t unsent_count();

    // For the report: the connection, read only by convention.
    sqlite3* handle() { return db_.get(); }
    const std::string& path() const { return path_; }

private:
    Store() = default;
    // Runs `body` between BEGIN IMMEDIATE and COMMIT (or inside the open
    // transaction of in_one_transaction), taking the mutex.
    bool write(const std::function<bool(std::string*)>& body, std::string* error);
    bool begin_immediate(std::string* error);

    // Recursive: in_one_transaction holds it while its body writes.
    std::recursive_mutex mutex_;
    SqliteDb db_;  // guarded by mutex_
    bool in_transaction_ = false;  // guarded by mutex_; set by in_one_transaction
    std::string path_;
};

}  // namespace results
