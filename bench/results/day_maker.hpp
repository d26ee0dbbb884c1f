// A made-up day of a line, for the benchmarks and the pictures in the
// guide: stations of eight slots, phones through each slot one after the
// other, the plan of the demonstration (twelve steps, three of them
// measuring a number), a seeded share of phones failing at each step, one
// slot whose worn connector loses the card far more often than its
// neighbours, and most failed phones retested on another slot later.
#pragma once

#include <cstdint>
#include <string>

#include "pc/results/store.hpp"

namespace results_bench {

struct DayShape {
    int64_t phones = 400;        // tests, retests included
    int stations = 2;            // numbered 11, 12, ...
    int slots = 8;
    uint32_t seed = 20;
    int bad_station = 12;        // the fixture with the worn slot
    int bad_slot = 3;
    double bad_slot_card_failures = 0.12;  // on top of the usual share
};

// Writes the day into `store`, a thousand phones per transaction. False,
// with the reason, on failure.
bool make_day(results::Store& store, const DayShape& shape, std::string* error);

}  // namespace results_bench
