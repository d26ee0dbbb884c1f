// The loop's live table: between phones a slot's row says what it waits
// for, and every row carries the phones done since the start, their pass
// rate and the last phone's board number and verdict.
#include <gtest/gtest.h>

#include "pc/station/live_view.hpp"

namespace {

TEST(StationLiveView, LoopRowsSayWhatEachSlotWaitsForAndThePassRateSinceTheStart) {
    const auto now = std::chrono::steady_clock::now();
    station::SlotStatus waiting;
    waiting.device = "/dev/ttyACM0";
    waiting.board = "SN-OLD";  // the last phone's, not shown while waiting
    waiting.waiting = true;
    waiting.note = "waiting for the phone to go";
    waiting.phones = 3;
    waiting.phones_passed = 2;
    waiting.last_board = "SN-0003";
    waiting.last_verdict = "unknown";
    station::SlotStatus running;
    running.device = "/dev/ttyACM1";
    running.board = "SN-0104";
    running.step = 4;
    running.steps = 13;
    running.step_name = "card";
    running.passed = 3;
    running.started = now - std::chrono::milliseconds(1500);
    const std::vector<std::string> lines = station::table_lines({waiting, running}, now, true);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0],
              "slot  device         board        step                         rf              pass fail  time     "
              "state      phones  pass  last board   last verdict");
    EXPECT_EQ(lines[1],
              "1     /dev/ttyACM0                waiting for the phone to go  -                                  "
              "waiting        3   67%  SN-0003      unknown");
    EXPECT_EQ(lines[2],
              "2     /dev/ttyACM1   SN-0104      4/13 card                    -                 3    0  1.5 s    "
              "running        0     -  -            -");
}

}  // namespace
