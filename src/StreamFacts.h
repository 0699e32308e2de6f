/// @file
/// What a video stream says of its own presentation, in its parameter sets and its first picture.
#ifndef KX_MP4_STREAMFACTS_H
#define KX_MP4_STREAMFACTS_H

#include <cstdint>

#include "VideoFrameParser.h"
#include "kx_mp4/kx_mp4.h"
#include "kx_mp4/presentation.h"

namespace kx_mp4 {

/// The first picture of a stream: its bytes and, but for ProRes, its NAL units.
struct FirstPicture {
    const mp4_video_track_info_t& track;  ///< With the parameter sets.
    const uint8_t* bytes;
    uint32_t size;
    const CVideoFrameParser& units;
};

/// Fills in what is 0 in `shape` and the stream tells: the shape of a pixel and the order of
/// fields.
void TakeShape(const FirstPicture& picture, mp4_video_shape_t& shape);
/// Fills in what is missing in `colour` and the stream tells: colour, mastering display and content
/// light.
void TakeColour(const FirstPicture& picture, mp4_video_colour_t& colour);

}  // namespace kx_mp4

#endif  // KX_MP4_STREAMFACTS_H
