// Inflating the stored picture and drawing it into a page.
//
// Runs on the picture thread only. The inflated picture and the screen size
// live in a state that is never destroyed: the picture thread may still be
// drawing while the process exits, and the picture must not go away under it.
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <zlib.h>

#include "screen/screen_image.hpp"
#include "screen/screen_log.hpp"

namespace {

constexpr size_t kPictureRowBytes = size_t{kPictureWidth} * 2;

struct PictureState {
    std::unique_ptr<uint8_t[]> pixels;  // kPictureBytes, or null before a load
    int width = 0;                      // the screen's, as loaded
    int height = 0;
};

PictureState& picture_state() {
    static PictureState* state = new PictureState();
    return *state;
}

// One inflate call over the whole record into a block of exactly the
// picture's size. The record's length stops one byte short of the stream, so
// a sound stream gives Z_OK here and never Z_STREAM_END. Every pixel must
// have arrived as well: a short stream would also say Z_OK.
bool inflate_picture(const StoredPicture& stored, uint8_t* out) {
    z_stream zs{};
    zs.next_in = const_cast<Bytef*>(stored.data);
    zs.avail_in = stored.length;
    zs.next_out = out;
    zs.avail_out = static_cast<uInt>(kPictureBytes);
    if (inflateInit2(&zs, 31) != Z_OK) return false;  // 31: a gzip wrapper only
    int rc = inflate(&zs, Z_PARTIAL_FLUSH);
    int end_rc = inflateEnd(&zs);
    return rc == Z_OK && end_rc == Z_OK && zs.avail_out == 0;
}

}  // namespace

int screen_load_image(int width, int height) { return screen_load_image_from(g_amtModePicture, width, height); }

int screen_load_image_from(const StoredPicture& stored, int width, int height) {
    if (width < kMinScreenWidth || height < kMinScreenHeight) {
        char line[160];
        snprintf(line, sizeof(line), "screen %dx%d is smaller than the picture %ux%u, not drawn\n", width, height,
                 kPictureWidth, kPictureHeight);
        screen_log(kPictureLogTag, line);
        return -1;
    }
    std::unique_ptr<uint8_t[]> block(new (std::nothrow) uint8_t[kPictureBytes]());
    if (!block) {
        screen_log(kPictureLogTag, "Out of memory\n");
        return -1;
    }
    if (stored.data == nullptr || !inflate_picture(stored, block.get())) {
        screen_log(kPictureLogTag, "Unexpected inflate error\n");
        return -1;
    }
    PictureState& state = picture_state();
    state.pixels = std::move(block);
    state.width = width;
    state.height = height;
    return 0;
}

void screen_draw_image(uint8_t* page) {
    const PictureState& state = picture_state();
    if (!state.pixels || page == nullptr) {
        screen_log(nullptr, "no picture loaded, nothing drawn\n");
        return;
    }
    // The load refused screens smaller than the picture, so both edges are
    // at least 0 and every row lies inside the page.
    const size_t width = static_cast<size_t>(state.width);
    const size_t height = static_cast<size_t>(state.height);
    const int left = (state.width - kMinScreenWidth) / 2;
    const int top = (state.height - kMinScreenHeight) / 2;
    memset(page, 0, width * height * 2);
    uint8_t* dst = page + (static_cast<size_t>(top) * width + static_cast<size_t>(left)) * 2;
    const uint8_t* src = state.pixels.get();
    for (uint32_t row = 0; row < kPictureHeight; ++row) {
        memcpy(dst, src, kPictureRowBytes);
        dst += width * 2;
        src += kPictureRowBytes;
    }
}
