/// @file
/// Holds a frame record against the bytes of its sample.
#ifndef KX_MP4_REPAIR_SAMPLECHECK_H
#define KX_MP4_REPAIR_SAMPLECHECK_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "InfoReader.h"
#include "MediaReader.h"
#include "VideoFrameParser.h"

namespace kx_mp4 {

/// What a sample's own marks say about its record.
enum class SampleVerdict {
    kHolds,
    kDoubtful,  // a mark is missing that samples of this form have; Doubt says which
    kRefuted,   // Problem says why
};

/// Knows the formats that are in force and checks sample after sample.
class SampleCheck {
public:
    explicit SampleCheck(MediaReader& media) : m_media(media) {}

    void SetVideoFormat(const VideoFormatRecord& format);
    void SetCaptionCodec(mp4_subtitle_codec codec) { m_captionCodec = codec; }

    /// Checks the sample of `frame` at `position`.
    SampleVerdict Check(const FrameRecord& frame, uint64_t position);
    /// Why the last sample does not hold.
    const std::string& Problem() const { return m_problem; }
    /// Why the last sample is doubtful.
    const char* Doubt() const { return m_doubt; }

    /// Whether the media data has sequence parameter sets, and none of them is the recorded one.
    bool ParameterSetsContradict() const { return m_spsSeen && !m_spsMatched; }
    /// Whether most of the AAC frames, and more than a few, do not end as AAC frames do.
    bool SoundContradicts() const {
        constexpr uint64_t kFew = 4;
        return m_aacOdd > kFew && m_aacOdd * 2 > m_aacFrames;
    }

private:
    SampleVerdict Fail(const std::string& problem);
    SampleVerdict Distrust(const char* doubt);
    SampleVerdict CheckVideo(const FrameRecord& frame, uint64_t position);
    SampleVerdict CheckNalUnits(const FrameRecord& frame, uint64_t position);
    SampleVerdict CheckProRes(uint32_t size, uint64_t position);
    SampleVerdict CheckAac(uint32_t size, uint64_t position);
    SampleVerdict CheckCaption(uint32_t size, uint64_t position);
    SampleVerdict CheckTimecode(int32_t timecode, uint64_t position);
    void CompareParameterSet(uint8_t header, uint32_t length, uint64_t position);
    bool ReadInt(uint64_t position, uint32_t& value);
    /// Zeros at the edge of a page that such a sample never has.
    size_t ZerosOfNoSample(RepairTrack track) const;

    MediaReader& m_media;
    mp4_video_codec m_videoCodec = MP4_MVC_UNKNOWN;
    std::vector<uint8_t> m_sps;  // the recorded one; empty without one
    bool m_spsSeen = false;
    bool m_spsMatched = false;
    uint64_t m_aacFrames = 0;
    uint64_t m_aacOdd = 0;
    std::unique_ptr<IVideoNalParser> m_nal;
    mp4_subtitle_codec m_captionCodec = MP4_SUBTITLE_CODEC_UNKNOWN;
    std::string m_problem;
    const char* m_doubt = "";
};

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_SAMPLECHECK_H
