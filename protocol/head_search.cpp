#include "protocol/head_search.hpp"

#include "process/pub_util.hpp"
#include "protocol/pc_frame.hpp"

namespace {
const char* const kMatchLine[4] = {"first char match:%02x", "second char match:%02x", "third char match:%02x",
                                   "fourth char match:%02x"};
const char* const kMismatchLine[4] = {"first char not match:%02x", "second char not match:%02x",
                                      "third char not match:%02x", "fourth char not match:%02x"};
}  // namespace

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
HeadSearchResult head_search_step(HeadSearch* search, uint8_t byte) {
    int state = search->state;
    if (state < 0 || state > 3) state = 0;
    if (byte != kFrameHead[state]) {
        log_dbg(kMismatchLine[state], byte);
        search->state = 0;
        return HeadSearchResult::kMismatch;
    }
    if (verbose_log()) log_dbg(kMatchLine[state], byte);
    if (state == 3) {
        search->state = 0;
        return HeadSearchResult::kFound;
    }
    search->state = state + 1;
    return HeadSearchResult::kMatching;
}
#pragma GCC diagnostic pop
