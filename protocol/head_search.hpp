// The search for AA BB CC DD in the PC byte stream, one byte at a time.
// A byte that breaks a match is consumed and not looked at again, even if it
// is AA: in AA BB CC AA BB CC DD the first head is lost and so is the second.
#pragma once

#include <cstdint>

enum class HeadSearchResult { kMatching, kMismatch, kFound };

struct HeadSearch {
    int state = 0;  // head bytes matched so far
};

// Feeds one byte and logs as the search does ("first char not match:%02x",
// and the verbose match lines). After kFound the state is back at 0.
HeadSearchResult head_search_step(HeadSearch* search, uint8_t byte);
