// The stored "AMT MODE" picture, what the screen code refuses to draw, and the
// picture's placement on a page. The reference pixels come from zlib directly
// (page_check), never from the screen code; rows, columns and offsets are
// literals. The framebuffer tests and the e2e screen test check the ordinary
// 720 x 1280 page.
#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

#include "log_capture.hpp"
#include "page_check.hpp"
#include "screen/screen_image.hpp"

namespace {

constexpr int kW = 346;
constexpr int kH = 390;

// The letters are drawn at build time from a font: each has ink exactly in
// its own rows and columns, and nothing else has any.
TEST(PictureContent, EachLetterHasInkExactlyInItsBoxAndNothingElseHas) {
    struct Box {
        char ch;
        int left, right, top, bottom;
    };
    const Box letters[] = {
        {'A', 25, 59, 153, 192},   {'M', 66, 102, 153, 192}, {'T', 108, 138, 153, 192},
        {'M', 158, 194, 153, 192}, {'O', 202, 238, 152, 193}, {'D', 246, 278, 153, 192},
        {'E', 286, 315, 153, 192},
    };
    const std::vector<uint16_t> px = page_check::reference_picture();
    ASSERT_EQ(px.size(), static_cast<size_t>(kW) * kH);
    auto ink = [&](int row, int col) { return px[static_cast<size_t>(row) * kW + col] != 0; };
    size_t stray = 0;
    for (const Box& b : letters) {
        int top = kH, bottom = -1, left = kW, right = -1;
        for (int row = 0; row < kH; ++row) {
            // Three columns of margin: the next letter is further away.
            for (int col = b.left - 3; col <= b.right + 3; ++col) {
                if (!ink(row, col)) continue;
                top = std::min(top, row);
                bottom = std::max(bottom, row);
                left = std::min(left, col);
                right = std::max(right, col);
            }
        }
        EXPECT_EQ(std::vector<int>({left, right, top, bottom}), std::vector<int>({b.left, b.right, b.top, b.bottom}))
            << b.ch;
    }
    for (int row = 0; row < kH; ++row) {
        for (int col = 0; col < kW; ++col) {
            bool inside = std::any_of(std::begin(letters), std::end(letters), [&](const Box& b) {
                return row >= b.top && row <= b.bottom && col >= b.left && col <= b.right;
            });
            stray += !inside && ink(row, col);
        }
    }
    EXPECT_EQ(stray, 0u) << "ink outside the letters";
}

// The record stops one byte short of the stream, so a sound record inflates
// with Z_OK; the whole stream, a short one or a damaged one is refused, and
// so is a screen smaller than the picture, since drawing has no clipping.
TEST(StoredPicture, StreamsThatDoNotInflateWithZOkAndScreensSmallerThanThePictureAreRefused) {
    LogCapture log;
    StoredPicture whole = g_amtModePicture;
    whole.length += 1;  // inflate says Z_STREAM_END
    EXPECT_EQ(screen_load_image_from(whole, 720, 1280), -1);
    StoredPicture half = g_amtModePicture;
    half.length /= 2;  // inflate says Z_OK, but pixels are missing
    EXPECT_EQ(screen_load_image_from(half, 720, 1280), -1);
    std::vector<uint8_t> damaged(g_amtModePicture.data, g_amtModePicture.data + g_amtModePicture.length + 1);
    damaged[g_amtModePicture.length - 6] ^= 0x01;  // a byte of the CRC-32
    StoredPicture bad_crc = g_amtModePicture;
    bad_crc.data = damaged.data();
    EXPECT_EQ(screen_load_image_from(bad_crc, 720, 1280), -1);
    EXPECT_EQ(log.count("D/CHARGE_ONLY_MODE("), 3u);
    EXPECT_EQ(log.count("): Unexpected inflate error\n"), 3u);

    EXPECT_EQ(screen_load_image(345, 1280), -1);
    EXPECT_EQ(screen_load_image(720, 389), -1);
    EXPECT_EQ(screen_load_image(-1, 1280), -1);  // a resolution beyond INT_MAX
    EXPECT_TRUE(log.contains("): screen 345x1280 is smaller than the picture 346x390, not drawn\n"));
    EXPECT_TRUE(log.contains("): screen 720x389 is smaller than the picture 346x390, not drawn\n"));
    EXPECT_EQ(log.count("is smaller than the picture"), 3u);
}

// An odd difference truncates: on 721 x 1281 the picture's top left is at
// column 187, row 445, as on 720 x 1280. A page shown before (white) is
// wholly overwritten, and nothing past the page is touched.
TEST(PicturePlacement, PictureIsCentredOnBlackWithAnOddDifferenceTruncated) {
    ASSERT_EQ(screen_load_image(721, 1281), 0);
    const size_t page_bytes = size_t{721} * 1281 * 2;
    std::vector<uint8_t> page(page_bytes + 4096, 0xFF);
    screen_draw_image(page.data());
    std::string first;
    EXPECT_EQ(page_check::count_mismatches(std::span<const uint8_t>(page.data(), page_bytes), 721, 1281, 445, 187,
                                           &first),
              0u)
        << first;
    EXPECT_TRUE(std::all_of(page.begin() + static_cast<long>(page_bytes), page.end(),
                            [](uint8_t b) { return b == 0xFF; }))
        << "written past the page";
}

}  // namespace
