// Byte reads and writes with a deadline on one descriptor, shared by the PC
// line and the wfmgr peer. Every wait ends as soon as its bytes are there.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace sandbox {

using Bytes = std::vector<uint8_t>;
using Millis = std::chrono::milliseconds;

// Writes all of `bytes`, waiting for room up to `timeout`.
bool write_all(int fd, std::span<const uint8_t> bytes, Millis timeout);

// Reads exactly `n` bytes; nothing when the time runs out, the peer closes or
// the read fails. Bytes read before such an end are lost.
std::optional<Bytes> read_exact(int fd, size_t n, Millis timeout);

// True when nothing becomes readable on `fd` for `window`. Nothing is consumed.
// A closed peer counts as something (the descriptor becomes readable).
bool quiet_for(int fd, Millis window);

// Everything until the writers close `fd` (a child's output): blocks.
std::string read_to_end(int fd);

}  // namespace sandbox
