// The picture's side of the screen: inflating the stored picture once and
// drawing it, centred on black, into one page of the framebuffer. Used by
// screen_init and screen_update on the picture thread, the only thread that
// enters the screen code.
#pragma once

#include <cstdint>

#include "screen/stored_picture.hpp"

// Smallest screen the picture is drawn on; a smaller one is refused, since
// the drawing has no clipping.
constexpr int kMinScreenWidth = static_cast<int>(kPictureWidth);
constexpr int kMinScreenHeight = static_cast<int>(kPictureHeight);

// Inflates the stored picture and stores the screen's width and height for
// screen_draw_image. 0, or -1 after a log line (tag "CHARGE_ONLY_MODE"), with
// nothing kept: out of memory, an inflate result other than Z_OK, or a screen
// smaller than the picture.
int screen_load_image(int width, int height);
// The same for a given record instead of the program's own.
int screen_load_image_from(const StoredPicture& stored, int width, int height);

// Fills the page at `page` (width x height x 2 bytes of the stored size):
// black, with the picture's top left at column (width - 346) / 2 and row
// (height - 390) / 2. Rows are width x 2 bytes apart. Draws nothing, after a
// log line, when no picture is loaded.
void screen_draw_image(uint8_t* page);
