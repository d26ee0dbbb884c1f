#include "pc/station/handshake_offer.hpp"

namespace station {
namespace {

constexpr uint8_t kOffer[] = {0xAA, 0xBB, 0xCC, 0xDD, 0x7F};
constexpr size_t kOfferLen = sizeof(kOffer);

}  // namespace

bool OfferScanner::feed(std::span<const uint8_t> bytes) {
    for (uint8_t b : bytes) {
        if (matched_ == kOfferLen) {
            matched_ = 0;
            if (b != 0x00) return true;  // 00 would be a frame length of 127
        }
        if (b == kOffer[matched_]) {
            ++matched_;
        } else {
            matched_ = b == kOffer[0] ? 1 : 0;
        }
    }
    return false;
}

bool OfferScanner::quiet() {
    const bool offer = matched_ == kOfferLen;
    matched_ = 0;
    return offer;
}

}  // namespace station
