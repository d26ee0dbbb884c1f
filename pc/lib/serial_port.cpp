// Descriptor calls onto the Linux half of pc/os (see serial_port.hpp).
#ifndef _WIN32

#include "pc/lib/serial_port.hpp"

#include <fcntl.h>

namespace tools {

UniqueFd open_raw_serial(const std::string& path, std::string* error) {
    pcos::Line line = pcos::Line::open(path, error);
    if (!line.valid()) return UniqueFd();
    UniqueFd fd(fcntl(line.native(), F_DUPFD_CLOEXEC, 0));
    if (!fd.valid()) *error = "cannot keep " + path + " open";
    return fd;
}

bool write_all(int fd, std::span<const uint8_t> bytes, Deadline deadline, int stop_fd) {
    pcos::Stop stop = pcos::Stop::borrow(stop_fd);
    return pcos::Line::borrow(fd).write_all(bytes, deadline, stop.valid() ? &stop : nullptr);
}

long read_some(int fd, std::span<uint8_t> buf, Deadline deadline, int stop_fd) {
    pcos::Stop stop = pcos::Stop::borrow(stop_fd);
    return pcos::Line::borrow(fd).read_some(buf, deadline, stop.valid() ? &stop : nullptr);
}

bool write_all(int fd, std::span<const uint8_t> bytes) { return write_all(fd, bytes, Deadline::max()); }

}  // namespace tools

#endif
