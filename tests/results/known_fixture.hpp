// A fixture whose report is worked out by hand: station 12, four slots,
// ten finished tests each and one unfinished.
//   slot 1: five phones fail "card" (four time out, one measures 512 KiB,
//           below its 1000), five pass; the first three come back on slot 3
//           and pass there
//   slot 2: one phone fails "board number read back"
//   slot 3: all pass (three of them retests)
//   slot 4: the last finished phone's verdict is unknown; an eleventh phone
//           is still under test
// Each test has four steps; "enter-amt" takes slot * 10 + k ms (k the
// test's number in its slot), so the 41 durations are 10..50.
#pragma once

#include "pc/results/store.hpp"

namespace results_test {

// Writes the fixture into `store`; false with the reason on failure.
bool write_known_fixture(results::Store& store, std::string* error);

}  // namespace results_test
