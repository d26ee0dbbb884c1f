#include "png_pixels.hpp"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <zlib.h>

namespace results_test {

namespace {

uint32_t big_endian(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

int paeth(int a, int b, int c) {
    const int p = a + b - c;
    const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
    if (pa <= pb && pa <= pc) return a;
    return pb <= pc ? b : c;
}

}  // namespace

bool read_png(const std::string& path, Pixels* out, std::string* error) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (bytes.size() < 8 || memcmp(bytes.data(), kSignature, 8) != 0) {
        *error = path + " is not a PNG";
        return false;
    }
    std::vector<uint8_t> compressed;
    int channels = 0;
    for (size_t at = 8; at + 12 <= bytes.size();) {
        const uint32_t length = big_endian(&bytes[at]);
        if (at + 12 + length > bytes.size()) break;
        const std::string type(reinterpret_cast<const char*>(&bytes[at + 4]), 4);
        const uint8_t* data = &bytes[at + 8];
        if (type == "IHDR") {
            out->width = static_cast<int>(big_endian(data));
            out->height = static_cast<int>(big_endian(data + 4));
            const int depth = data[8], colour = data[9], interlace = data[12];
            channels = colour == 2 ? 3 : colour == 6 ? 4 : 0;
            if (depth != 8 || channels == 0 || interlace != 0) {
                *error = "only 8-bit RGB or RGBA, not interlaced";
                return false;
            }
        } else if (type == "IDAT") {
            compressed.insert(compressed.end(), data, data + length);
        }
        at += 12 + length;
    }
    const size_t stride = static_cast<size_t>(out->width) * static_cast<size_t>(channels);
    std::vector<uint8_t> raw((stride + 1) * static_cast<size_t>(out->height));
    uLongf raw_size = static_cast<uLongf>(raw.size());
    if (channels == 0 || uncompress(raw.data(), &raw_size, compressed.data(), static_cast<uLong>(compressed.size())) != Z_OK ||
        raw_size != raw.size()) {
        *error = "cannot inflate " + path;
        return false;
    }
    std::vector<uint8_t> image(stride * static_cast<size_t>(out->height));
    for (size_t y = 0; y < static_cast<size_t>(out->height); ++y) {
        const uint8_t filter = raw[y * (stride + 1)];
        const uint8_t* in = &raw[y * (stride + 1) + 1];
        uint8_t* row = &image[y * stride];
        const uint8_t* up = y > 0 ? &image[(y - 1) * stride] : nullptr;
        for (size_t x = 0; x < stride; ++x) {
            const int a = x >= static_cast<size_t>(channels) ? row[x - channels] : 0;
            const int b = up != nullptr ? up[x] : 0;
            const int c = up != nullptr && x >= static_cast<size_t>(channels) ? up[x - channels] : 0;
            int predictor = 0;
            switch (filter) {
                case 0: predictor = 0; break;
                case 1: predictor = a; break;
                case 2: predictor = b; break;
                case 3: predictor = (a + b) / 2; break;
                case 4: predictor = paeth(a, b, c); break;
                default: *error = "bad PNG filter"; return false;
            }
            row[x] = static_cast<uint8_t>(in[x] + predictor);
        }
    }
    out->rgb.resize(static_cast<size_t>(out->width) * static_cast<size_t>(out->height) * 3);
    for (size_t i = 0; i < static_cast<size_t>(out->width) * static_cast<size_t>(out->height); ++i) {
        memcpy(&out->rgb[i * 3], &image[i * static_cast<size_t>(channels)], 3);
    }
    return true;
}

}  // namespace results_test
