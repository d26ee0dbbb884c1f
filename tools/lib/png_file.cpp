// The smallest PNG that viewers accept: signature, IHDR, one IDAT holding the
// zlib stream of all rows (each behind a filter byte of 0), IEND. Every chunk
// is its big-endian length, type, data and the CRC-32 of type and data.
#include "tools/lib/png_file.hpp"

#include <cstdio>
#include <filesystem>
#include <vector>
#include <zlib.h>

namespace tools {
namespace {

void put_be32(std::vector<uint8_t>& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

void put_chunk(std::vector<uint8_t>& out, const char type[4], const std::vector<uint8_t>& data) {
    put_be32(out, static_cast<uint32_t>(data.size()));
    size_t start = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), data.begin(), data.end());
    uLong crc = crc32(0L, out.data() + start, static_cast<uInt>(out.size() - start));
    put_be32(out, static_cast<uint32_t>(crc));
}

// 5 or 6 bits of a channel spread over 8, so that full scale is 255.
uint8_t widen(unsigned value, unsigned bits) {
    return static_cast<uint8_t>((value << (8 - bits)) | (value >> (2 * bits - 8)));
}

}  // namespace

bool write_png_rgb565(const std::string& path, std::span<const uint8_t> pixels, int width, int height) {
    if (width <= 0 || height <= 0 || pixels.size() < static_cast<size_t>(width) * height * 2) return false;
    std::vector<uint8_t> rows;
    rows.reserve(static_cast<size_t>(height) * (1 + static_cast<size_t>(width) * 3));
    for (int row = 0; row < height; ++row) {
        rows.push_back(0);  // filter: none
        for (int col = 0; col < width; ++col) {
            size_t i = (static_cast<size_t>(row) * width + col) * 2;
            unsigned px = pixels[i] | (pixels[i + 1] << 8);
            rows.push_back(widen(px >> 11, 5));
            rows.push_back(widen((px >> 5) & 0x3F, 6));
            rows.push_back(widen(px & 0x1F, 5));
        }
    }
    std::vector<uint8_t> idat(compressBound(static_cast<uLong>(rows.size())));
    uLongf idat_len = static_cast<uLongf>(idat.size());
    if (compress2(idat.data(), &idat_len, rows.data(), static_cast<uLong>(rows.size()), 6) != Z_OK) return false;
    idat.resize(idat_len);

    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<uint8_t> ihdr;
    put_be32(ihdr, static_cast<uint32_t>(width));
    put_be32(ihdr, static_cast<uint32_t>(height));
    ihdr.insert(ihdr.end(), {8, 2, 0, 0, 0});  // 8 bits, RGB, deflate, adaptive filters, no interlace
    put_chunk(png, "IHDR", ihdr);
    put_chunk(png, "IDAT", idat);
    put_chunk(png, "IEND", {});

    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    std::string tmp = path + ".tmp";
    FILE* f = fopen(tmp.c_str(), "wb");
    if (f == nullptr) return false;
    bool ok = fwrite(png.data(), 1, png.size(), f) == png.size();
    ok = fclose(f) == 0 && ok;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        remove(tmp.c_str());
        return false;
    }
    return true;
}

}  // namespace tools
