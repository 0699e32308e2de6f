/// @file
/// The parameter sets of a video track's description: as far as they are given, the caller's; the
/// rest is taken from the stream.
#ifndef KX_MP4_PARAMETERSETS_H
#define KX_MP4_PARAMETERSETS_H

#include <array>
#include <cstdint>
#include <vector>

#include "VideoFrameParser.h"
#include "kx_mp4/kx_mp4.h"

/// Makes "not given" one thing: no pointer and no size. False for a negative size.
bool NormaliseParameterSets(mp4_video_track_info_t& info);

/// Whether every set that the codec needs is there; ProRes needs none.
bool HasParameterSets(mp4_video_track_info_t& info);

/// Copies of parameter sets that wait for the rest of their kind, past the life of the caller's
/// memory. A description that was handed over points into here.
class CParameterSetKeeper {
public:
    /// Copies the sets that the description has.
    void KeepGiven(mp4_video_track_info_t& info);
    /// Puts the NAL unit into the description when it is one of the codec's parameter sets; a later
    /// one replaces an earlier.
    void Take(const VIDEO_SLICE& unit, IVideoNalParser& parser, mp4_video_track_info_t& info);

private:
    std::array<std::vector<uint8_t>, 3> m_kept;  // in the order of the codec's sets
};

#endif  // KX_MP4_PARAMETERSETS_H
