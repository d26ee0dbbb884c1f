// A PNG of a framebuffer page, for a person to look at what the agent drew
// (the screen tests and the demonstration write one).
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tools {

// Writes width x height RGB565 little-endian pixels as an 8-bit RGB PNG,
// creating the file's directory. False, with nothing left behind, on failure.
bool write_png_rgb565(const std::string& path, std::span<const uint8_t> pixels, int width, int height);

}  // namespace tools
