// Bytes as the tools show and take them: hex text in, hex and printable text
// out.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

// Parses hex digits in pairs. Spaces, tabs, ':', ',' and '-' may separate
// bytes, and a byte may carry a 0x prefix: "2d000000", "2d 00 00 00" and
// "0x2d,0x00" are all accepted. Nothing for an odd digit count or a stray
// character.
std::optional<std::vector<uint8_t>> parse_hex(std::string_view text);

// "2D 00 41" (upper case, one space between bytes).
std::string to_hex(std::span<const uint8_t> bytes);

// The bytes as text, with '.' for every byte outside printable ASCII.
std::string to_printable(std::span<const uint8_t> bytes);

}  // namespace tools
