// Recognises the handshake that a phone's agent offers once a second when it
// comes up on the line, AA BB CC DD 7F, in the bytes of a line between two
// phones. The first four bytes are also the head of every frame, and a
// frame's length field can begin with 7F, so five bytes followed by 00 are
// a frame's head; followed by anything else, or by silence, an offer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace station {

class OfferScanner {
public:
    // Takes the next bytes; true when an offer was seen in them.
    bool feed(std::span<const uint8_t> bytes);
    // The line went quiet: true when the last bytes were an offer.
    bool quiet();
    void reset() { matched_ = 0; }

private:
    size_t matched_ = 0;  // bytes of the offer matched so far; 5: waiting for the next byte
};

}  // namespace station
