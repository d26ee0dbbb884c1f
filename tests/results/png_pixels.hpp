// Reads an 8-bit RGB or RGBA PNG (what Chromium's screenshots are) into
// RGB pixels, for the test that checks the report page's charts were
// painted.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace results_test {

struct Pixels {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;  // width * height * 3
};

// False, with the reason, for a file that is not such a PNG.
bool read_png(const std::string& path, Pixels* out, std::string* error);

}  // namespace results_test
