// Sends the local file's outbox to a line's PostgreSQL server, each row
// once. A batch goes in one server transaction of idempotent inserts keyed
// by the row ids (ON CONFLICT DO NOTHING; a slot's finished version replaces
// its unfinished one and nothing else), and is marked sent in the local file
// only after the server's commit. A server that goes away in the middle
// leaves the batch unmarked: it is sent again when the server is back, and
// the server keeps one copy.
//
// Threads: OutboxSender is used by one thread at a time. SenderThread runs
// one in a thread of its own, which it starts and joins; wake() and stop()
// come from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "pc/results/pg_handle.hpp"
#include "pc/results/store.hpp"

namespace results {

class OutboxSender {
public:
    OutboxSender(Store& store, std::string url) : store_(store), url_(std::move(url)) {}

    // Sends until the outbox is empty. False, with the reason, when the
    // server cannot be reached or refuses; what was sent stays sent and the
    // rest waits. `*sent`: rows the server confirmed in this call.
    bool send_pending(size_t* sent, std::string* error);

private:
    bool connect(std::string* error);
    bool send_runs(size_t* sent, bool* more, std::string* error);
    bool send_slots(size_t* sent, bool* more, std::string* error);
    bool send_steps(size_t* sent, bool* more, std::string* error);
    // BEGIN, the insert, COMMIT; the connection is dropped on failure.
    bool in_server_transaction(const std::string& sql, const std::vector<const char*>& params, std::string* error);

    Store& store_;
    std::string url_;
    PgConn conn_;
};

class SenderThread {
public:
    // Sends every `period`, and at once after wake(); after a failure it
    // waits `retry` before trying again.
    SenderThread(Store& store, std::string url, std::chrono::milliseconds period = std::chrono::milliseconds(1000),
                 std::chrono::milliseconds retry = std::chrono::milliseconds(2000));
    ~SenderThread();
    SenderThread(const SenderThread&) = delete;
    SenderThread& operator=(const SenderThread&) = delete;

    void wake();
    // Ends the thread after one last pass. True when the outbox was empty.
    bool stop();
    // The last failure's reason, empty after a pass that sent everything.
    std::string last_error();

private:
    void run();

    OutboxSender sender_;
    const std::chrono::milliseconds period_;
    const std::chrono::milliseconds retry_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool woken_ = false;          // guarded by mutex_
    bool stopping_ = false;       // guarded by mutex_
    std::string last_error_;      // guarded by mutex_
    std::atomic<bool> drained_{false};
    std::thread thread_;
};

}  // namespace results
