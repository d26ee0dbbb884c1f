// The head search: one byte per step, the state being the number of head
// bytes matched. A byte that breaks a match is consumed, so it can never
// start the next match, even when it is AA. Each such byte costs one log line;
// the matching bytes are logged in verbose mode only.
#include "protocol/head_search.hpp"

#include "process/pub_util.hpp"
#include "protocol/pc_frame.hpp"

namespace {

constexpr int kHeadLen = static_cast<int>(sizeof(kFrameHead));

void log_match(int state, uint8_t byte) {
    switch (state) {
        case 0: log_dbg("first char match:%02x", byte); break;
        case 1: log_dbg("second char match:%02x", byte); break;
        case 2: log_dbg("third char match:%02x", byte); break;
        default: log_dbg("fourth char match:%02x", byte); break;
    }
}

void log_mismatch(int state, uint8_t byte) {
    switch (state) {
        case 0: log_dbg("first char not match:%02x", byte); break;
        case 1: log_dbg("second char not match:%02x", byte); break;
        case 2: log_dbg("third char not match:%02x", byte); break;
        default: log_dbg("fourth char not match:%02x", byte); break;
    }
}

}  // namespace

HeadSearchResult head_search_step(HeadSearch* search, uint8_t byte) {
    int state = search->state;
    if (state < 0 || state >= kHeadLen) state = 0;
    if (byte != kFrameHead[state]) {
        log_mismatch(state, byte);
        search->state = 0;
        return HeadSearchResult::kMismatch;
    }
    if (verbose_log()) log_match(state, byte);
    if (state == kHeadLen - 1) {
        search->state = 0;
        return HeadSearchResult::kFound;
    }
    search->state = state + 1;
    return HeadSearchResult::kMatching;
}
