// ovta-results-day FILE [PHONES] [SEED]: writes a made-up day of a line
// (day_maker.hpp) into a results file, for the guide's pictures and for
// trying the report.
#include <cstdio>
#include <cstdlib>

#include "day_maker.hpp"

int main(int argc, char** argv) {
    if (argc < 2 || argc > 4) {
        fputs("usage: ovta-results-day FILE [PHONES] [SEED]\n", stderr);
        return 2;
    }
    results_bench::DayShape shape;
    if (argc > 2) shape.phones = std::atoll(argv[2]);
    if (argc > 3) shape.seed = static_cast<uint32_t>(std::atol(argv[3]));
    if (shape.phones <= 0) {
        fputs("ovta-results-day: PHONES must be a positive number\n", stderr);
        return 2;
    }
    std::string error;
    std::unique_ptr<results::Store> store = results::Store::open(argv[1], &error);
    if (!store || !results_bench::make_day(*store, shape, &error)) {
        fprintf(stderr, "ovta-results-day: %s\n", error.c_str());
        return 1;
    }
    return 0;
}
