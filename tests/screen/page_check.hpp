// What the screen tests compare a drawn page with: the stored picture as zlib
// inflates it on its own, never as the screen code does, placed on black.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace page_check {

// The stored stream inflated by zlib to its end: 346 x 390 pixels, row by
// row; empty when zlib does not reach the end of the stream.
std::vector<uint16_t> reference_picture();

// Pixels of a page of width x height RGB565 pixels that are not the picture
// with its top left at (top, left) on black. The first few are described in
// `first_mismatches` ("row R, column C: 0x.... instead of 0x....").
size_t count_mismatches(std::span<const uint8_t> page, int width, int height, int top, int left,
                        std::string* first_mismatches = nullptr);

// The lines of a text file, without their line ends; empty when it is missing.
std::vector<std::string> read_lines(const std::string& path);
// A whole file; empty when it is missing.
std::vector<uint8_t> read_bytes(const std::string& path);

}  // namespace page_check
