// The Linux half of PhoneLine: the path is looked at with stat, the line
// watched with poll. A pseudo-terminal or USB serial adapter whose other end
// goes reports POLLHUP (and reads fail with EIO); its device node goes away.
#include <cerrno>
#include <algorithm>
#include <chrono>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "pc/station/phone_line.hpp"

namespace station {
namespace {

// How often a missing path is looked for, and a present one checked.
constexpr int kPathPollMs = 200;
// How long a freshly opened line is given to show the agent's handshake
// offer (once a second while it waits for the PC). A phone already past
// its handshake offers nothing, and the plan starts anyway.
constexpr int kOfferWaitMs = 2000;
// Silence after the five bytes of an offer: no frame follows them.
constexpr long kQuietMs = 100;

int stop_fd(const pcos::Stop* stop) { return stop != nullptr ? stop->native() : -1; }

}  // namespace

bool PhoneLine::stop_within(int ms) const {
    pollfd p = {stop_fd(stop_), POLLIN, 0};
    return poll(&p, p.fd >= 0 ? 1 : 0, ms) > 0 && (p.revents & POLLIN) != 0;
}

bool PhoneLine::same_device() const {
    struct stat now {};
    struct stat open {};
    if (stat(path_.c_str(), &now) != 0 || fstat(line_.native(), &open) != 0) return false;
    return now.st_rdev == open.st_rdev && now.st_ino == open.st_ino && now.st_dev == open.st_dev;
}

bool PhoneLine::open_line() {
    struct stat st {};
    if (stat(path_.c_str(), &st) != 0) return false;
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
    // Give the phone's first offer a moment; the plan's first frame answers it.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kOfferWaitMs);
    uint8_t buf[256];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
        if (left.count() <= 0) return true;
        pollfd p[2] = {{line_.native(), POLLIN, 0}, {stop_fd(stop_), POLLIN, 0}};
        const int ready = poll(p, p[1].fd >= 0 ? 2 : 1, static_cast<int>(std::min<long>(left.count(), kQuietMs)));
        if (ready < 0 && errno != EINTR) return true;
        if (p[1].revents & POLLIN) return false;
        if (ready == 0 && offers_.quiet()) {
            note_ = "the phone offered the handshake";
            return true;
        }
        if (p[0].revents & (POLLHUP | POLLERR)) return true;  // the plan's first step says what is wrong
        if (p[0].revents & POLLIN) {
            const ssize_t n = read(line_.native(), buf, sizeof(buf));
            if (n > 0 && offers_.feed({buf, static_cast<size_t>(n)})) {
                note_ = "the phone offered the handshake";
                return true;
            }
        }
    }
}

bool PhoneLine::wait_until_gone() {
    uint8_t buf[256];
    for (;;) {
        if (!line_.valid()) return true;
        pollfd p[2] = {{line_.native(), POLLIN, 0}, {stop_fd(stop_), POLLIN, 0}};
        const int ready = poll(p, p[1].fd >= 0 ? 2 : 1, kPathPollMs);
        if (ready < 0 && errno != EINTR) return true;
        if (p[1].revents & POLLIN) return false;
        if (ready > 0 && (p[0].revents & POLLIN)) {
            const ssize_t n = read(line_.native(), buf, sizeof(buf));
            if (n > 0) {
                if (offers_.feed({buf, static_cast<size_t>(n)})) {
                    offered_ = true;
                    note_ = "a new phone offered the handshake";
                    return true;
                }
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        }
        if (ready > 0 && (p[0].revents & (POLLHUP | POLLERR | POLLIN)) != 0) {
            line_ = pcos::Line();
            note_ = "the line hung up";
            return true;
        }
        if (ready == 0 && offers_.quiet()) {
            offered_ = true;
            note_ = "a new phone offered the handshake";
            return true;
        }
        if (ready == 0 && !same_device()) {
            line_ = pcos::Line();
            note_ = "the device is gone";
            return true;
        }
    }
}

}  // namespace station
