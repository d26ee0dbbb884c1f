// The Windows half of PhoneLine: a COM port is there when it opens, and gone
// when a read on it fails (a USB serial adapter that is unplugged fails its
// reads with ERROR_BROKEN_PIPE, then its name no longer opens). The waits
// are the line's own reads against short deadlines, and the stop's event.
#include <windows.h>

#include <algorithm>
#include <chrono>

#include "pc/station/phone_line.hpp"

namespace station {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How often a missing port is tried again, and how long each read on an
// open one waits.
constexpr int kPathPollMs = 200;
// How long a freshly opened line is given to show the agent's handshake
// offer (once a second while it waits for the PC).
constexpr int kOfferWaitMs = 2000;
// Silence after the five bytes of an offer: no frame follows them.
constexpr int kQuietMs = 100;

}  // namespace

bool PhoneLine::stop_within(int ms) const {
    if (stop_ == nullptr || !stop_->valid()) {
        Sleep(static_cast<DWORD>(ms));
        return false;
    }
    return WaitForSingleObject(stop_->native(), static_cast<DWORD>(ms)) == WAIT_OBJECT_0;
}

// A COM port's name says nothing of the device behind it: a read that fails
// is what tells that it went.
bool PhoneLine::same_device() const { return line_.valid(); }

bool PhoneLine::open_line() {
    std::string error;
    pcos::Line line = pcos::Line::open(path_, &error);
    if (!line.valid()) return false;
    line_ = std::move(line);
    offers_.reset();
    return true;
}

bool PhoneLine::wait_for_phone() {
    if (offered_ && line_.valid()) {
        offered_ = false;
        note_ = "a new phone offered the handshake";
        return true;
    }
    offered_ = false;
    while (!open_line()) {
        if (stop_within(kPathPollMs)) return false;
    }
    note_ = "the line opened";
    const auto until = Clock::now() + milliseconds(kOfferWaitMs);
    uint8_t buf[256];
    while (Clock::now() < until) {
        const long n = line_.read_some(buf, std::min(until, Clock::now() + milliseconds(kQuietMs)), stop_);
        if (n == pcos::kReadStopped) return false;
        if (n == pcos::kReadFailed) return true;  // the plan's first step says what is wrong
        if (n == pcos::kReadTimeout && offers_.quiet()) {
            note_ = "the phone offered the handshake";
            return true;
        }
        if (n > 0 && offers_.feed({buf, static_cast<size_t>(n)})) {
            note_ = "the phone offered the handshake";
            return true;
        }
    }
    return true;
}

bool PhoneLine::wait_until_gone() {
    uint8_t buf[256];
    for (;;) {
        if (!line_.valid()) return true;
        const long n = line_.read_some(buf, Clock::now() + milliseconds(kPathPollMs), stop_);
        if (n == pcos::kReadStopped) return false;
        if (n == pcos::kReadFailed || !same_device()) {
            line_ = pcos::Line();
            note_ = "the line hung up";
            return true;
        }
        if ((n > 0 && offers_.feed({buf, static_cast<size_t>(n)})) || (n == pcos::kReadTimeout && offers_.quiet())) {
            offered_ = true;
            note_ = "a new phone offered the handshake";
            return true;
        }
    }
}

}  // namespace station
