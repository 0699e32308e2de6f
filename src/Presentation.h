/// @file
/// What a file says of the presentation beside the described boxes, when it was asked for, and the
/// record of it in the repair info file.
///
/// The record is a metadata item of the library's own namespace and key, which a reader that does
/// not know it takes for any other item. Its data:
///
/// | offset | bytes | field                                             |
/// | 0      | 1     | version: 1                                        |
/// | 1      | ...   | facts, each: tag 1, size of the value 2, the value |
///
/// A fact with an unknown tag is passed over; the last record of a file counts.
#ifndef KX_MP4_PRESENTATION_RECORD_H
#define KX_MP4_PRESENTATION_RECORD_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "kx_mp4/kx_mp4.h"
#include "kx_mp4/presentation.h"

namespace kx_mp4 {

struct Presentation {
    static constexpr const char* kNamespace = "kxmp";
    static constexpr const char* kKey = "com.kx_mp4.presentation";
    /// Of a record that holds a parameter set beside those of the video track's last description.
    static constexpr const char* kParameterSetKey = "com.kx_mp4.parameter_set";

    bool strictForm = false;        ///< See CMp4Muxer::SetStrictForm.
    bool allParameterSets = false;  ///< See CMp4Muxer::SetAllParameterSets.
    bool startTimes = false;        ///< See CMp4Muxer::SetTimeline.
    uint32_t audioPriming = 0;      ///< See CMp4Muxer::SetAudioPriming.
    mp4_video_shape_t shape{};
    mp4_video_colour_t colour{};

    /// Whether a metadata item is the record.
    static bool IsRecord(const char* key, const char* key_namespace) {
        return IsOwn(kKey, key, key_namespace);
    }
    /// Whether it is that of a parameter set.
    static bool IsParameterSet(const char* key, const char* key_namespace) {
        return IsOwn(kParameterSetKey, key, key_namespace);
    }

    bool HasPixelAspect() const { return shape.pixel_width != 0; }
    bool HasCleanAperture() const { return shape.clean_width != 0; }
    bool HasColour() const {
        return (colour.primaries | colour.transfer | colour.matrix) != 0 || colour.full_range != 0;
    }

    /// Whether anything differs from a file that was asked for nothing.
    bool SaysAnything() const { return Record().size() > 1; }
    /// The record's data; that of nothing to say is its version alone.
    std::string Record() const;
    /// Reads a record; false, with nothing changed, for one that is not whole or of a later
    /// version.
    bool Read(const std::string& record);

private:
    static bool IsOwn(const char* own, const char* key, const char* key_namespace);
};

/// Whether the shape can be described; 0 to 3 of all its numbers are related.
bool IsPossible(const mp4_video_shape_t& shape);

}  // namespace kx_mp4

#endif  // KX_MP4_PRESENTATION_RECORD_H
