/// @file
/// Holds a frame record against the bytes of its sample.
#ifndef KX_MP4_REPAIR_SAMPLECHECK_H
#define KX_MP4_REPAIR_SAMPLECHECK_H

#include <cstdint>
#include <memory>
#include <string>

#include "InfoReader.h"
#include "MediaReader.h"
#include "VideoFrameParser.h"

namespace kx_mp4 {

/// What a sample's own marks say about its record.
enum class SampleVerdict {
    kHolds,
    kNothingToCheck,  // the form has no marks
    kRefuted,         // Problem says why
};

/// Knows the formats that are in force and checks sample after sample.
class SampleCheck {
public:
    /// `compositionOffsets`: whether the recording is taken to have them.
    SampleCheck(MediaReader& media, bool compositionOffsets)
        : m_media(media), m_compositionOffsets(compositionOffsets) {}

    void SetVideoCodec(mp4_video_codec codec);
    void SetCaptionCodec(mp4_subtitle_codec codec) { m_captionCodec = codec; }

    /// Checks the sample of `frame` at `position`.
    SampleVerdict Check(const FrameRecord& frame, uint64_t position);
    /// Why the last sample does not hold.
    const std::string& Problem() const { return m_problem; }

    /// Whether a sample has shown that the recording has composition offsets, or has none, as it
    /// was taken to.
    bool OffsetsConfirmed() const { return m_offsetsConfirmed; }
    /// Whether the first sample that shows it has shown the opposite, and so was refuted.
    bool OffsetsContradicted() const { return m_offsetsContradicted; }

private:
    SampleVerdict Fail(const std::string& problem);
    SampleVerdict CheckVideo(const FrameRecord& frame, uint64_t position);
    SampleVerdict CheckNalUnits(const FrameRecord& frame, uint64_t position);
    SampleVerdict CheckProRes(uint32_t size, uint64_t position);
    SampleVerdict CheckCaption(uint32_t size, uint64_t position);
    SampleVerdict CheckTimecode(int32_t timecode, uint64_t position);
    SampleVerdict CheckRandomAccessMark(bool sync);
    bool ReadInt(uint64_t position, uint32_t& value);

    MediaReader& m_media;
    bool m_compositionOffsets;
    bool m_offsetsConfirmed = false;
    bool m_offsetsContradicted = false;
    mp4_video_codec m_videoCodec = MP4_MVC_UNKNOWN;
    std::unique_ptr<IVideoNalParser> m_nal;
    mp4_subtitle_codec m_captionCodec = MP4_SUBTITLE_CODEC_UNKNOWN;
    std::string m_problem;
};

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_SAMPLECHECK_H
