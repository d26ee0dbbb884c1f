// The "AMT MODE" picture as the program stores it: a gzip stream of its
// RGB565 pixels, made at build time by screen/logo/make_logo and compiled in.
//
// `length` is what the agent hands to inflate, and it is one less than the
// stream: the last byte of the gzip trailer (the top byte of the length
// field) is kept back, so that inflate delivers every pixel, checks the
// CRC-32, finds the length field incomplete and returns Z_OK. Handing the
// whole stream would give Z_STREAM_END, which the agent counts as a failure.
#pragma once

#include <cstddef>
#include <cstdint>

struct StoredPicture {
    uint32_t width;
    uint32_t height;
    const uint8_t* data;
    uint32_t length;
};

constexpr uint32_t kPictureWidth = 346;
constexpr uint32_t kPictureHeight = 390;
// RGB565: one 16-bit little-endian word a pixel, rows top to bottom, no gap.
constexpr size_t kPictureBytes = size_t{kPictureWidth} * kPictureHeight * 2;

extern const StoredPicture g_amtModePicture;
