// A slot's line in a loop, as phones come and go: waits until a phone is on
// it and until that phone has gone. A phone is there when the device path
// appears and opens (a USB serial adapter comes with its phone), or when a
// handshake offer arrives on a line that stayed open; it has gone when the
// line hangs up, the path disappears or names another device, or a new
// offer shows that another phone came. Everything that differs between
// systems is behind this class (phone_line_posix.cpp holds the Linux half,
// phone_line_win32.cpp the Windows one, where a COM port is there when it
// opens and gone when a read fails).
//
// Used by one slot's thread only. The stop (raised on Ctrl-C) ends either
// wait at once.
#pragma once

#include <string>

#include "pc/station/handshake_offer.hpp"
#include "pc/os/line.hpp"

namespace station {

class PhoneLine {
public:
    PhoneLine(std::string path, const pcos::Stop* stop) : path_(std::move(path)), stop_(stop) {}

    // Waits for a phone. True with the line open; false on a stop.
    bool wait_for_phone();
    // Waits until the phone on the open line has gone. True when it went
    // (the line is closed again unless a new phone's offer came); false on
    // a stop.
    bool wait_until_gone();
    // The line, for the plan; not valid when closed.
    pcos::Line& line() { return line_; }
    // Why the last wait ended, for the live table and the log.
    const std::string& note() const { return note_; }

private:
    bool open_line();
    // Waits up to `ms` for the stop; true when it came.
    bool stop_within(int ms) const;
    // Whether the path still names the device that is open.
    bool same_device() const;

    std::string path_;
    const pcos::Stop* stop_;
    pcos::Line line_;
    OfferScanner offers_;
    bool offered_ = false;  // a new phone's offer came while waiting for the last one to go
    std::string note_;
};

}  // namespace station
