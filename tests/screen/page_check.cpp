#include "page_check.hpp"

#include <cstdio>
#include <fstream>
#include <zlib.h>

#include "screen/stored_picture.hpp"

namespace page_check {

std::vector<uint16_t> reference_picture() {
    std::vector<uint8_t> raw(kPictureBytes + 64);
    z_stream zs{};
    zs.next_in = const_cast<Bytef*>(g_amtModePicture.data);
    zs.avail_in = g_amtModePicture.length + 1;
    zs.next_out = raw.data();
    zs.avail_out = static_cast<uInt>(raw.size());
    if (inflateInit2(&zs, 31) != Z_OK) return {};
    int rc = inflate(&zs, Z_FINISH);
    inflateEnd(&zs);
    if (rc != Z_STREAM_END || zs.total_out != kPictureBytes) return {};
    std::vector<uint16_t> px(kPictureBytes / 2);
    for (size_t i = 0; i < px.size(); ++i) px[i] = static_cast<uint16_t>(raw[2 * i] | (raw[2 * i + 1] << 8));
    return px;
}

size_t count_mismatches(std::span<const uint8_t> page, int width, int height, int top, int left,
                        std::string* first_mismatches) {
    const std::vector<uint16_t> pic = reference_picture();
    const int pw = static_cast<int>(kPictureWidth), ph = static_cast<int>(kPictureHeight);
    if (pic.empty() || page.size() < static_cast<size_t>(width) * height * 2) return SIZE_MAX;
    size_t wrong = 0;
    for (int row = 0; row < height; ++row) {
        for (int col = 0; col < width; ++col) {
            const int r = row - top, c = col - left;
            const bool in = r >= 0 && r < ph && c >= 0 && c < pw;
            const uint16_t want = in ? pic[static_cast<size_t>(r) * pw + c] : 0x0000;
            const size_t i = (static_cast<size_t>(row) * width + col) * 2;
            const uint16_t got = static_cast<uint16_t>(page[i] | (page[i + 1] << 8));
            if (got == want) continue;
            if (++wrong <= 5 && first_mismatches != nullptr) {
                char text[96];
                snprintf(text, sizeof(text), "row %d, column %d: 0x%04x instead of 0x%04x\n", row, col, got, want);
                *first_mismatches += text;
            }
        }
    }
    return wrong;
}

std::vector<std::string> read_lines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::vector<uint8_t> read_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace page_check
