/// @file
/// A stream with B-frames for the examples and tests in C, so that none needs an encoder: H.264
/// main profile, 64 x 64, grey. In order of decoding I P B P B; in order of showing I B P B P.
#ifndef KX_MP4_EXAMPLES_B_FRAMES_H
#define KX_MP4_EXAMPLES_B_FRAMES_H

#include <stddef.h>
#include <stdint.h>

enum { B_FRAMES_GROUP = 5, B_FRAMES_SIZE = 64 };

/// One access unit in Annex-B form.
struct b_frames_picture {
    uint8_t bytes[64];
    uint32_t size;
    uint32_t shown_as;  ///< Its place in the order of showing, within the group.
};

static const struct b_frames_picture b_frames[B_FRAMES_GROUP] = {
    {{0,    0,    0,    1,    0x67, 0x4D, 0x40, 0x0A, 0xF6, 0x21, 0x34, 0x03,
      0xC5, 0x8B, 0x4E, 0,    0,    0,    1,    0x68, 0xCE, 0x3C, 0x80, 0,
      0,    0,    1,    0x65, 0x88, 0x84, 0x0A, 0x26, 0xA4, 0xE4, 0xE4, 0xE4,
      0xE4, 0xE4, 0xE4, 0xE4, 0xE4, 0xE4, 0xE4, 0xE4, 0xE4, 0xE4, 0xE4, 0xF0},
     48,
     0},
    {{0, 0, 0, 1, 0x41, 0x9A, 0x28, 0x28, 0x23}, 9, 2},
    {{0, 0, 0, 1, 0x01, 0x9E, 0x45, 0x14, 0x11, 0x80}, 10, 1},
    {{0, 0, 0, 1, 0x41, 0x9A, 0x50, 0x28, 0x23}, 9, 4},
    {{0, 0, 0, 1, 0x01, 0x9E, 0x6D, 0x14, 0x11, 0x80}, 10, 3},
};

/// 1024 samples of AAC LC, mono, silent.
static const uint8_t b_frames_silence[4] = {0x00, 0x00, 0x00, 0x07};

#endif /* KX_MP4_EXAMPLES_B_FRAMES_H */
