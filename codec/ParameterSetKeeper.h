/// @file
/// The parameter sets of a video track's description, which the caller gives or the stream brings.
#ifndef KX_MP4_CODEC_PARAMETERSETKEEPER_H
#define KX_MP4_CODEC_PARAMETERSETKEEPER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// Which of its codec's parameter sets a NAL unit of the base layer is.
enum class ParameterSetKind { kVps, kSps, kPps };

/// Nothing for a unit that is none, and for one of another layer: its sets describe what a
/// single-layer track cannot hold.
std::optional<ParameterSetKind> KindOfParameterSet(mp4_video_codec codec, const uint8_t* nal,
                                                   size_t size);

/// Copies of parameter sets that wait for the rest of their kind, past the life of the caller's
/// memory. A description that was handed over points into here.
class ParameterSetKeeper {
public:
    /// Makes "not given" one thing: no pointer and no size. False for a negative size.
    static bool Normalise(mp4_video_track_info_t& info);
    /// Whether every set that the codec needs is there; ProRes needs none.
    static bool IsComplete(const mp4_video_track_info_t& info);

    /// Whether the configuration record of the codec (ISO/IEC 14496-15) can be made from every set
    /// that the description has. A decoder may want more of them than that.
    static bool AreUsable(const mp4_video_track_info_t& info);

    /// Copies the sets that the description has.
    void KeepGiven(mp4_video_track_info_t& info);
    /// Puts the NAL unit into the description when it is one of the codec's parameter sets, in the
    /// place of one that was given or came before. False for one of them that is not usable: it
    /// leaves the description as it is.
    bool Take(const uint8_t* nal, size_t size, mp4_video_track_info_t& info);

private:
    /// Copies a set; the description then points to the copy.
    void Keep(ParameterSetKind kind, const uint8_t* from, size_t count, const uint8_t*& bytes,
              int16_t& size);

    std::array<std::vector<uint8_t>, 3> m_kept;  // by their kind
};

}  // namespace kx_mp4

#endif  // KX_MP4_CODEC_PARAMETERSETKEEPER_H
