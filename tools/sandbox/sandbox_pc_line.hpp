// The PC's end of the USB serial port: the master of the phone's
// pseudo-terminal. The phone owns the descriptor; a PcLine only uses it.
#pragma once

#include "sandbox_io.hpp"

namespace sandbox {

class PcLine {
public:
    explicit PcLine(int master_fd) : fd_(master_fd) {}

    bool send(std::span<const uint8_t> bytes, Millis timeout = Millis(5000)) {
        return write_all(fd_, bytes, timeout);
    }
    std::optional<Bytes> read_exact(size_t n, Millis timeout) { return sandbox::read_exact(fd_, n, timeout); }
    // True when the phone sends nothing for `window`.
    bool quiet_for(Millis window) { return sandbox::quiet_for(fd_, window); }

private:
    int fd_;
};

}  // namespace sandbox
