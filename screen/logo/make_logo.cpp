// make_logo: the build-time generator of the "AMT MODE" picture.
//
//   make_logo <font.ttf> <output.cpp>
//
// Renders the seven capitals with FreeType from a sans-serif face into a
// 346 x 390 picture, white on black with 16 grey levels, gzips the RGB565
// pixels and writes a C++ source that holds the stream in the stored picture
// record (screen/stored_picture.hpp).
//
// Each letter is placed by its ink, not by the font's advance: the outline is
// scaled and moved so that its exact bounding box fills the letter's box of
// the layout below, one box per letter. The picture therefore has the same
// rows and columns whatever the font's metrics, and the generator checks the
// result before it writes anything: a picture with ink outside its boxes, a
// box without ink on one of its edges, or a T whose stem is not 5 to 6
// pixels wide fails the build instead of reaching the phone.
//
// The output depends on the font file alone: the gzip header carries neither
// a file name nor a time stamp.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_BBOX_H
#include FT_OUTLINE_H
#include <zlib.h>

namespace {

constexpr int kWidth = 346;
constexpr int kHeight = 390;

// One letter: its character, the box its ink fills (rows and columns counted
// from 0 at the top left, both ends included) and how much its outline is
// thickened across (font units of DejaVu Sans, 2048 to the em) before it is
// fitted to the box.
//
// The face's strokes are about 200 units across and 170 units high, 5 and
// 4.6 pixels at this size. Everything gets 24 units of height, so the bars
// come out above 5 pixels; across, a letter that the box squeezes gets 24
// units and the E, which its box stretches by a sixth, loses 30, so that the
// stems come out between 5 and 6 pixels too.
struct LetterBox {
    char ch;
    int left, right, top, bottom;
    FT_Pos embolden_x;
};

// 40 rows of capitals; the O reaches one row further up and down, as round
// letters do in any face.
constexpr LetterBox kLayout[] = {
    {'A', 25, 59, 153, 192, 24},   {'M', 66, 102, 153, 192, 24}, {'T', 108, 138, 153, 192, 24},
    {'M', 158, 194, 153, 192, 24}, {'O', 202, 238, 152, 193, 24}, {'D', 246, 278, 153, 192, 24},
    {'E', 286, 315, 153, 192, -30},
};
constexpr FT_Pos kEmboldenY = 24;

// Distance kept from the box's outer edges, in 1/64 pixel: the rounded point
// coordinates then never reach into the pixels next to the box.
constexpr FT_Pos kInset = 2;

// Coverage 0-255 to the 16 grey levels 0-15.
uint8_t grey_level(uint8_t coverage) { return static_cast<uint8_t>((coverage * 15 + 127) / 255); }

// Grey level 0-15 to RGB565: the level spread over 8 bits (0, 17, ... 255)
// and cut to 5, 6 and 5 bits, so 0 is 0x0000 and 15 is 0xFFFF.
uint16_t rgb565_of_level(uint8_t level) {
    unsigned v = level * 17u;
    return static_cast<uint16_t>(((v >> 3) << 11) | ((v >> 2) << 5) | (v >> 3));
}

struct FreeType {
    FT_Library lib = nullptr;
    FT_Face face = nullptr;
    ~FreeType() {
        if (face != nullptr) FT_Done_Face(face);
        if (lib != nullptr) FT_Done_FreeType(lib);
    }
};

// Maps the outline's exact bounding box onto the letter's box: font units
// (y up) to 26.6 pixel coordinates of the picture (y up from the bottom edge,
// as FreeType's bitmaps count it).
void fit_outline(FT_Outline* outline, const LetterBox& box) {
    FT_BBox bb;
    FT_Outline_Get_BBox(outline, &bb);
    double x0 = box.left * 64.0 + kInset;
    double x1 = (box.right + 1) * 64.0 - kInset;
    double y0 = (kHeight - box.bottom - 1) * 64.0 + kInset;
    double y1 = (kHeight - box.top) * 64.0 - kInset;
    double sx = (x1 - x0) / static_cast<double>(bb.xMax - bb.xMin);
    double sy = (y1 - y0) / static_cast<double>(bb.yMax - bb.yMin);
    for (int i = 0; i < outline->n_points; ++i) {
        FT_Vector& p = outline->points[i];
        p.x = std::lround(x0 + static_cast<double>(p.x - bb.xMin) * sx);
        p.y = std::lround(y0 + static_cast<double>(p.y - bb.yMin) * sy);
    }
}

// Renders every letter into `coverage` (kWidth x kHeight, one byte a pixel).
bool render_letters(const char* font_path, std::vector<uint8_t>& coverage) {
    FreeType ft;
    if (FT_Init_FreeType(&ft.lib) != 0) {
        fprintf(stderr, "make_logo: FreeType does not start\n");
        return false;
    }
    if (FT_New_Face(ft.lib, font_path, 0, &ft.face) != 0) {
        fprintf(stderr, "make_logo: cannot load the font %s\n", font_path);
        return false;
    }
    std::vector<uint8_t> glyph(coverage.size());
    for (const LetterBox& box : kLayout) {
        FT_UInt index = FT_Get_Char_Index(ft.face, static_cast<FT_ULong>(box.ch));
        if (index == 0 ||
            FT_Load_Glyph(ft.face, index, FT_LOAD_NO_SCALE | FT_LOAD_NO_HINTING | FT_LOAD_NO_BITMAP) != 0 ||
            ft.face->glyph->format != FT_GLYPH_FORMAT_OUTLINE) {
            fprintf(stderr, "make_logo: the font has no outline for '%c'\n", box.ch);
            return false;
        }
        FT_Outline* outline = &ft.face->glyph->outline;
        FT_Outline_EmboldenXY(outline, box.embolden_x, kEmboldenY);
        fit_outline(outline, box);

        // Each letter on a cleared canvas of its own, then merged, so that
        // no letter depends on how the rasteriser treats pixels already set.
        std::fill(glyph.begin(), glyph.end(), 0);
        FT_Bitmap bitmap{};
        bitmap.rows = kHeight;
        bitmap.width = kWidth;
        bitmap.pitch = kWidth;
        bitmap.buffer = glyph.data();
        bitmap.num_grays = 256;
        bitmap.pixel_mode = FT_PIXEL_MODE_GRAY;
        if (FT_Outline_Get_Bitmap(ft.lib, outline, &bitmap) != 0) {
            fprintf(stderr, "make_logo: cannot render '%c'\n", box.ch);
            return false;
        }
        for (size_t i = 0; i < coverage.size(); ++i) {
            if (glyph[i] > coverage[i]) coverage[i] = glyph[i];
        }
    }
    return true;
}

// The checks the picture must pass before it is written. `levels` holds the
// grey level of every pixel.
bool check_picture(const std::vector<uint8_t>& levels) {
    auto at = [&](int row, int col) { return levels[static_cast<size_t>(row) * kWidth + col]; };
    bool ok = true;
    for (int row = 0; row < kHeight; ++row) {
        for (int col = 0; col < kWidth; ++col) {
            if (at(row, col) == 0) continue;
            bool inside = false;
            for (const LetterBox& b : kLayout) {
                inside = inside || (row >= b.top && row <= b.bottom && col >= b.left && col <= b.right);
            }
            if (!inside) {
                fprintf(stderr, "make_logo: ink outside the letters at row %d, column %d\n", row, col);
                return false;
            }
        }
    }
    for (const LetterBox& b : kLayout) {
        bool top = false, bottom = false, left = false, right = false;
        for (int col = b.left; col <= b.right; ++col) {
            top = top || at(b.top, col) != 0;
            bottom = bottom || at(b.bottom, col) != 0;
        }
        for (int row = b.top; row <= b.bottom; ++row) {
            left = left || at(row, b.left) != 0;
            right = right || at(row, b.right) != 0;
        }
        if (!(top && bottom && left && right)) {
            fprintf(stderr, "make_logo: '%c' does not reach every edge of its box\n", b.ch);
            ok = false;
        }
    }
    // Stroke width as the ink across the T's stem, half way down: the sum of
    // the grey levels in 15ths of a pixel.
    const LetterBox& t = kLayout[2];
    int sum = 0;
    for (int col = t.left; col <= t.right; ++col) sum += at((t.top + t.bottom) / 2, col);
    if (sum < 5 * 15 || sum > 6 * 15) {
        fprintf(stderr, "make_logo: the T's stem is %.2f pixels wide, not 5 to 6\n", sum / 15.0);
        ok = false;
    }
    return ok;
}

// gzip with zlib's plain header: no file name, no time stamp, no extra field.
bool gzip(const std::vector<uint8_t>& raw, std::vector<uint8_t>& out) {
    z_stream zs{};
    if (deflateInit2(&zs, Z_BEST_COMPRESSION, Z_DEFLATED, 31, 9, Z_DEFAULT_STRATEGY) != Z_OK) return false;
    out.resize(deflateBound(&zs, static_cast<uLong>(raw.size())));
    zs.next_in = const_cast<Bytef*>(raw.data());
    zs.avail_in = static_cast<uInt>(raw.size());
    zs.next_out = out.data();
    zs.avail_out = static_cast<uInt>(out.size());
    int rc = deflate(&zs, Z_FINISH);
    out.resize(zs.total_out);
    deflateEnd(&zs);
    return rc == Z_STREAM_END;
}

bool write_source(const char* path, const char* font_path, const std::vector<uint8_t>& stream) {
    const char* slash = strrchr(font_path, '/');
    const char* font_name = slash != nullptr ? slash + 1 : font_path;
    std::string tmp = std::string(path) + ".tmp";
    FILE* f = fopen(tmp.c_str(), "w");
    if (f == nullptr) {
        fprintf(stderr, "make_logo: cannot write %s: %s\n", tmp.c_str(), strerror(errno));
        return false;
    }
    fprintf(f,
            "// Generated at build time by make_logo from %s; do not edit.\n"
            "// The \"AMT MODE\" picture, %d x %d RGB565, as a gzip stream of %zu bytes.\n"
            "#include \"screen/stored_picture.hpp\"\n\n"
            "namespace {\n\n"
            "const uint8_t kAmtModeStream[%zu] = {\n",
            font_name, kWidth, kHeight, stream.size(), stream.size());
    for (size_t i = 0; i < stream.size(); ++i) {
        fprintf(f, "%s0x%02x,%s", i % 12 == 0 ? "    " : "", stream[i],
                i % 12 == 11 || i + 1 == stream.size() ? "\n" : " ");
    }
    fprintf(f,
            "};\n\n"
            "}  // namespace\n\n"
            "// The last byte of the stream is not handed to inflate.\n"
            "const StoredPicture g_amtModePicture = {%d, %d, kAmtModeStream, %zu};\n",
            kWidth, kHeight, stream.size() - 1);
    bool ok = fflush(f) == 0 && ferror(f) == 0;
    ok = fclose(f) == 0 && ok;
    if (!ok || rename(tmp.c_str(), path) != 0) {
        fprintf(stderr, "make_logo: cannot write %s: %s\n", path, strerror(errno));
        remove(tmp.c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: make_logo <font.ttf> <output.cpp>\n");
        return 2;
    }
    std::vector<uint8_t> coverage(static_cast<size_t>(kWidth) * kHeight, 0);
    if (!render_letters(argv[1], coverage)) return 1;

    std::vector<uint8_t> levels(coverage.size());
    std::vector<uint8_t> raw(coverage.size() * 2);
    for (size_t i = 0; i < coverage.size(); ++i) {
        levels[i] = grey_level(coverage[i]);
        uint16_t px = rgb565_of_level(levels[i]);
        raw[2 * i] = static_cast<uint8_t>(px & 0xFF);
        raw[2 * i + 1] = static_cast<uint8_t>(px >> 8);
    }
    if (!check_picture(levels)) return 1;

    std::vector<uint8_t> stream;
    if (!gzip(raw, stream)) {
        fprintf(stderr, "make_logo: gzip failed\n");
        return 1;
    }
    return write_source(argv[2], argv[1], stream) ? 0 : 1;
}
