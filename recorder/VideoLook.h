/// @file
/// What the recorder has to know of a picture: whether a file can begin with it, and which
/// parameter sets it brings.
#ifndef KX_MP4_RECORDER_VIDEOLOOK_H
#define KX_MP4_RECORDER_VIDEOLOOK_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "FurtherParameterSets.h"
#include "ParameterSetKeeper.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// What the NAL units up to the first slice say.
struct PictureLook {
    bool valid = false;  ///< Whether there is a NAL unit at all; always so for ProRes.
    /// Whether it and all that follow can be decoded without what came before: IDR of H.264; IDR,
    /// and BLA without pictures that are skipped, of HEVC; every picture of ProRes. A CRA picture
    /// is none: pictures that follow it may need those before.
    bool key = false;
};

/// Looks at a picture in Annex-B form.
PictureLook LookAtPicture(mp4_video_codec codec, const uint8_t* bytes, size_t size);

/// Looks at a picture whose NAL units lie behind lengths of four bytes; not valid when they do not
/// fill it.
PictureLook LookAtLengths(mp4_video_codec codec, const uint8_t* bytes, size_t size);

/// Turns lengths of four bytes, which fill the picture, into start codes.
void LengthsToStartCodes(uint8_t* bytes, size_t size);

/// The description of the video track as the stream goes on: parameter sets of the declaration,
/// then those that the stream brings.
class VideoDescription {
public:
    VideoDescription() = default;
    VideoDescription(const VideoDescription&) = delete;
    VideoDescription& operator=(const VideoDescription&) = delete;

    /// Copies the declaration.
    void Declare(const mp4_video_track_info_t& info);
    bool IsDeclared() const { return m_declared; }
    /// Whether a file can be described.
    bool IsComplete() const { return ParameterSetKeeper::IsComplete(m_info); }
    /// Points into this object; until the next call of another operation.
    const mp4_video_track_info_t& Info() const { return m_info; }
    /// Those of other numbers than the description's, as they were sent last.
    const FurtherParameterSets& FurtherSets() const { return m_further; }
    /// Takes the sets in front of the picture's first slice. Whether one of them is another than
    /// that of its kind and number in the description before.
    bool Take(const uint8_t* bytes, size_t size);

private:
    bool TakeUnit(const uint8_t* nal, size_t size);
    void TakePictureSize(const uint8_t* nal, size_t size);

    bool m_declared = false;
    mp4_video_track_info_t m_info{};
    ParameterSetKeeper m_sets;
    FurtherParameterSets m_further{FurtherParameterSets::Counts::kLast};
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_VIDEOLOOK_H
