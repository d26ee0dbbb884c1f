// Is a slot worse than the rest of its fixture? The one-sided Fisher exact
// test of a 2x2 table:
//
//                  failed   passed
//     this slot       a        b
//     the others      c        d
//
// The p-value is the chance, with the margins fixed and the slot no worse
// than the others, of a slot with a or more failures: the upper tail of the
// hypergeometric distribution. Exact at any count (a slot with three phones
// is judged fairly), and computed in logarithms so that a day's tens of
// thousands of phones do not overflow.
#pragma once

#include <cstdint>

namespace results {

double fisher_one_sided_worse(uint64_t a, uint64_t b, uint64_t c, uint64_t d);

}  // namespace results
