// One slot of a station's fixture: a line whose path stays while phones come
// and go, as a USB serial adapter's does, and every phone that was on it,
// kept. Under the fixture's folder DIR:
//
//   DIR/slot-N/tty        a symbolic link to the line of the phone on the slot
//                         now; absent while the slot is empty
//   DIR/slot-N/phone-K/   the tree of the slot's K-th phone (1, 2, ..., going
//                         on after those an earlier fixture left), never
//                         reused and kept after the phone went: amt/ holds its
//                         stores (test_result.txt, board_no.txt,
//                         product_date.txt, rf/), agent.log and wfmgr.log its
//                         programs' logs once it is off
//   DIR/phones.log        one line per phone put on or taken off, shared by
//                         the slots (PhoneLog)
//
// Taking a phone off hangs its line up first (the station's descriptor sees
// the hang-up, the link goes), then stops its programs; the slot stays empty
// for the gap, then a fresh phone (fresh stores, a new agent) comes on and
// the link comes back to its line.
//
// Threads: a worker thread per slot makes every change of phone (the first
// one, each swap, the last one off), so that the changes of a slot come in
// order and no slot waits for another. Other threads ask through swap() and
// read through the accessors, both under mu_. A phone's relay reports a pull
// on its command through the slot's eventfd.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "process/unique_fd.hpp"
#include "sandbox_fixture.hpp"

namespace sandbox {

// DIR/phones.log: one line per event, fields parted by one space:
//
//   TIME on SLOT PHONE ROOT DEVICE     phone PHONE went on slot SLOT; its tree
//                                      is ROOT, its line DEVICE (/dev/pts/M);
//                                      " odd" behind it for an odd phone
//   TIME off SLOT PHONE ROOT WHY       it went off, its programs ended; WHY is
//                                      schedule, signal, command CMD or end
//   TIME failed SLOT PHONE ROOT WHY    it did not come up; the slot stays empty
//
// TIME is UTC to the millisecond, 2026-11-26T07:40:12.123Z. Any thread.
class PhoneLog {
public:
    // Appends to `path`; null, with the reason in `why`, when it cannot.
    static std::unique_ptr<PhoneLog> open(const std::string& path, std::string* why);
    void write(const std::string& event);

private:
    std::mutex mu_;
    UniqueFd fd_;
};

struct SlotSetup {
    size_t slot = 1;          // numbered from 1
    std::string dir;          // the fixture's folder
    FixtureSetup phone;       // every phone of the slot is laid out so
    PhoneLog* log = nullptr;  // must outlive the slot
    // A swap every `every` after the phone came on, the first one `first`
    // after the first phone came on; none when zero.
    std::chrono::milliseconds every{0};
    std::chrono::milliseconds first{0};
    // How long the slot stays empty between two phones.
    std::chrono::milliseconds gap{500};
    // The first phone to get a frame with this command is pulled at once,
    // before the frame reaches it, and a fresh one put on.
    std::optional<uint32_t> pull_on_command;
    // The phones of these numbers are laid out as `odd_phone` says instead
    // (e.g. with other table contents, so that a plan fails on them).
    std::vector<size_t> odd;
    FixtureSetup odd_phone;
    // Lays phone K out otherwise (a fault planted in it) and returns the
    // word the log gives it ("card"); empty: the phone as it is. May be null.
    std::function<std::string(size_t k, FixtureSetup* phone)> plant;
    // The phone is taken off once it holds a verdict (a pass or fail line in
    // its test result store) and half a second has passed, as an operator
    // unloads a finished phone; `every` stays as the latest time.
    bool swap_on_verdict = false;
    // After this many phones the slot stays empty (0: no end).
    size_t last_phone = 0;
};

class FixtureSlot {
public:
    explicit FixtureSlot(SlotSetup setup);
    // Takes the phone off (logged as "end") and ends the worker.
    ~FixtureSlot();
    FixtureSlot(const FixtureSlot&) = delete;
    FixtureSlot& operator=(const FixtureSlot&) = delete;

    // Waits until the first phone is on; false, with the reason, when it did
    // not come up.
    bool wait_first(std::string* why);
    // The slot's line: DIR/slot-N/tty.
    const std::string& line() const { return line_; }
    // Asks for a swap now; `why` goes to the log. Returns at once.
    void swap(const std::string& why);
    // The number of the last phone that came on (or tried to).
    size_t phones() const;
    // The slot's last phone (SlotSetup::last_phone) has come and gone.
    bool done() const;

private:
    void work();
    // Takes the phone off: hang-up, path gone, programs stopped, logged.
    void take_off(const std::string& why);
    // Puts the next phone on; false when it did not come up.
    bool put_on(std::string* why);
    // Waits on the eventfd until `deadline` (none: for ever).
    void wait_wake(std::optional<std::chrono::steady_clock::time_point> deadline);

    const SlotSetup setup_;
    const std::string line_;
    UniqueFd wake_;  // swap(), the destructor and a pulling relay add to it
    std::unique_ptr<FixturePhone> phone_;  // worker only
    bool pull_armed_ = true;                // worker only

    mutable std::mutex mu_;
    std::condition_variable cv_;
    size_t count_ = 0;               // guarded by mu_
    bool first_done_ = false;        // guarded by mu_
    std::string first_why_;          // guarded by mu_
    std::optional<std::string> asked_;  // guarded by mu_: a swap's reason
    bool stop_ = false;              // guarded by mu_
    bool done_ = false;              // guarded by mu_
    std::thread worker_;
};

}  // namespace sandbox
