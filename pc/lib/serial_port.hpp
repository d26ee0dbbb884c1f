// The PC end of the serial link on a bare descriptor (Linux only): a serial
// device or a pseudo-terminal in raw mode at 115200 baud, written whole and
// read against a deadline. A thin face of pc/os/line.hpp for callers that
// hold descriptors; new code takes pcos::Line and pcos::Stop.
#pragma once

#ifndef _WIN32

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

#include "pc/os/line.hpp"
#include "process/unique_fd.hpp"

namespace tools {

using Deadline = pcos::Deadline;

// Opens the device and puts it in raw mode. On failure the descriptor is not
// valid and *error says why.
UniqueFd open_raw_serial(const std::string& path, std::string* error);

// Writes every byte. False on an error.
bool write_all(int fd, std::span<const uint8_t> bytes);
// The same, but false also when the line takes no more bytes before the
// deadline (the other end reads nothing), or `stop_fd` (when not -1) becomes
// readable, so that the writer cannot hang.
bool write_all(int fd, std::span<const uint8_t> bytes, Deadline deadline, int stop_fd = -1);

// Waits for bytes until the deadline and reads what is there, at most
// buf.size(). Returns the count, 0 when the deadline passed, -1 on an error
// or when the other end is gone. A readable `stop_fd` (when not -1) ends the
// wait at once with kStopped.
constexpr long kStopped = pcos::kReadStopped;
long read_some(int fd, std::span<uint8_t> buf, Deadline deadline, int stop_fd = -1);

}  // namespace tools

#endif
