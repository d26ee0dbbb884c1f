#include "pc/lib/hex_text.hpp"

namespace tools {

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool is_separator(char c) { return c == ' ' || c == '\t' || c == ':' || c == ',' || c == '-' || c == '\n'; }

}  // namespace

std::optional<std::vector<uint8_t>> parse_hex(std::string_view text) {
    std::vector<uint8_t> out;
    size_t i = 0;
    while (i < text.size()) {
        if (is_separator(text[i])) {
            ++i;
            continue;
        }
        if (text[i] == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) i += 2;
        if (i + 1 >= text.size()) return std::nullopt;
        int hi = hex_digit(text[i]);
        int lo = hex_digit(text[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<uint8_t>(hi * 16 + lo));
        i += 2;
    }
    return out;
}

std::string to_hex(std::span<const uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() * 3);
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out.push_back(' ');
        out.push_back(kDigits[bytes[i] >> 4]);
        out.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return out;
}

std::string to_printable(std::span<const uint8_t> bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (uint8_t b : bytes) out.push_back(b >= 0x20 && b < 0x7F ? static_cast<char>(b) : '.');
    return out;
}

}  // namespace tools
