// How far every slot is, for the live view. Each slot's thread writes its
// own row; the view's thread takes copies. One mutex guards every row, and a
// change wakes the view through a condition variable, so the view sleeps
// while nothing happens.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace station {

struct SlotStatus {
    std::string device;
    std::string board;
    size_t step = 0;  // the step under way, from 1; 0 before the first
    size_t steps = 0;
    std::string step_name;
    size_t rf_done = 0;  // of an RF transfer under way
    size_t rf_total = 0;
    size_t passed = 0;
    size_t failed = 0;
    bool finished = false;
    std::string verdict;  // "pass", "FAIL", "stopped" once finished
    std::chrono::steady_clock::time_point started{};
    std::chrono::steady_clock::time_point ended{};
    // A slot on its own cycle (--loop), over all its phones:
    bool waiting = false;  // for a phone to come; `finished` holds the last phone's end
    bool closed = false;   // the cycle has ended (Ctrl-C, or no board numbers left)
    size_t phones = 0;     // phones done since the start
    size_t phones_passed = 0;
    std::string last_board;
    std::string last_verdict;
    std::string note;  // why the slot waits or ended
};

// A finished step, as the plain-line view shows it.
struct StepLine {
    size_t slot = 0;
    std::string text;
};

class StatusBoard {
public:
    explicit StatusBoard(std::vector<SlotStatus> rows);

    // Writers: each slot's thread, its own row.
    template <typename F>
    void update(size_t slot, F&& change) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            change(rows_[slot - 1]);
            changed_ = true;
        }
        changed_cv_.notify_all();
    }
    void finished_step(size_t slot, std::string line);

    // Reader: the view.
    std::vector<SlotStatus> rows() const;
    std::vector<StepLine> take_lines();
    // Waits up to `wait` for a change since the last clear_wake(); true when
    // there is one.
    bool wait_for_change(std::chrono::milliseconds wait);
    void clear_wake();

private:
    mutable std::mutex mu_;
    std::vector<SlotStatus> rows_;   // guarded by mu_
    std::vector<StepLine> lines_;    // guarded by mu_
    bool changed_ = false;           // guarded by mu_
    std::condition_variable changed_cv_;
};

}  // namespace station
