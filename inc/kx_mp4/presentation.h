/// @file
/// What a player needs to know beside the samples to show them as they were meant: shape, fields,
/// turn and colour of the pictures. For CMp4Muxer::SetVideoShape and SetVideoColour.
///
/// Every record begins with its size, which the caller sets, so that later versions can add to it.
#ifndef KX_MP4_KX_MP4_PRESENTATION_H
#define KX_MP4_KX_MP4_PRESENTATION_H

#include <stddef.h>
#include <stdint.h>

/// How the lines of a frame were taken.
typedef enum mp4_field_order {
    MP4_FIELDS_NOT_SAID = 0,     ///< The file says nothing; ProRes is marked progressive.
    MP4_FIELDS_PROGRESSIVE = 1,  ///< All at once.
    MP4_FIELDS_TOP_FIRST = 2,    ///< In two fields, the one with the top line first.
    MP4_FIELDS_BOTTOM_FIRST = 3  ///< In two fields, the other one first.
} mp4_field_order_t;

/// Shape, turn and fields of the pictures. All 0 says nothing.
typedef struct mp4_video_shape {
    size_t struct_size;  ///< sizeof(mp4_video_shape_t).
    /// Width to height of a pixel, such as 64 to 45 (ISO/IEC 14496-12, 12.1.4); both or none are 0.
    uint32_t pixel_width;
    uint32_t pixel_height;  ///< Of a pixel, in relation to its width.
    /// What is to be shown of a picture, in pixels from its upper left corner; width and height 0
    /// for all of it.
    uint32_t clean_x;
    uint32_t clean_y;       ///< Lines above what is shown.
    uint32_t clean_width;   ///< Pixels that are shown of a line.
    uint32_t clean_height;  ///< Lines that are shown.
    /// Degrees clockwise by which a player is to turn the picture: 0, 90, 180 or 270.
    uint32_t rotation;
    uint32_t field_order;  ///< One of #mp4_field_order_t.
    /// 1: what is 0 of the pixel's shape and the fields is taken from the stream, when its first
    /// picture is written: from the SPS and the first slice, or from the ProRes frame header.
    uint32_t from_stream;
} mp4_video_shape_t;

/// Colour and light of the pictures.
typedef struct mp4_video_colour {
    size_t struct_size;  ///< sizeof(mp4_video_colour_t).
    /// Code points of ITU-T H.273 (8.1 to 8.3). 2 is "unspecified"; with all three 0 the file says
    /// nothing of them.
    uint16_t primaries;
    uint16_t transfer;   ///< Transfer characteristics.
    uint16_t matrix;     ///< Matrix coefficients.
    uint8_t full_range;  ///< 1 when the samples use all of their range.
    /// 1 when the following describe the display the pictures were made on (SMPTE ST 2086).
    uint8_t has_mastering_display;
    /// x and y of green, blue and red, in units of 0.00002.
    uint16_t display_primaries[3][2];
    uint16_t white_point[2];                 ///< x and y, in units of 0.00002.
    uint32_t max_luminance;                  ///< In units of 0.0001 cd/m2.
    uint32_t min_luminance;                  ///< In units of 0.0001 cd/m2.
    uint8_t has_content_light;               ///< 1 when the following two are known (CTA-861.3).
    uint16_t max_content_light_level;        ///< Of the brightest pixel, cd/m2.
    uint16_t max_frame_average_light_level;  ///< Of the brightest frame, cd/m2.
    /// 1: what is not given is taken from the stream, when its first picture is written: from the
    /// SPS and SEI messages, or from the ProRes frame header.
    uint8_t from_stream;
} mp4_video_colour_t;

#endif  // KX_MP4_KX_MP4_PRESENTATION_H
