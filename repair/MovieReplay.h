/// @file
/// Plays the records of a repair info file into the boxes that the muxer writes at its end.
#ifndef KX_MP4_REPAIR_MOVIEREPLAY_H
#define KX_MP4_REPAIR_MOVIEREPLAY_H

#include <cstdint>
#include <vector>

#include "FurtherParameterSets.h"
#include "InfoReader.h"
#include "LiveIndex.h"
#include "RecordingLayout.h"
#include "RepairOutput.h"
#include "free.h"
#include "mdat.h"
#include "moov.h"

namespace kx_mp4 {

/// The boxes of one recording over one output.
class MovieReplay {
public:
    /// `output` is borrowed and has no file attached yet.
    MovieReplay(RepairOutput& output, const RecordingLayout& layout, uint8_t flags,
                bool compositionOffsets);

    /// Whether the boxes can describe this sample at `position`; the muxer writes no other.
    bool HasRoomFor(const FrameRecord& frame, uint64_t position) const;
    /// Whether the media data's header can describe media data up to there.
    bool CanEndAt(uint64_t mediaEnd) const {
        return m_layout.live || m_mdat.CanEndAt(static_cast<int64_t>(mediaEnd));
    }
    /// Takes a format, a metadata item or a frame whose sample lies at `position`. False when the
    /// boxes refuse it, as they did when the muxer offered it: an audio frame without a track
    /// leaves its bytes in the media data, but has no place in the index.
    bool Apply(const InfoRecord& record, uint64_t position);

    /// Bytes from the end of these samples to those that follow behind their index.
    uint64_t LiveIndexSize() const { return m_live.IndexSize(LiveMovie()); }
    /// The samples that follow lie behind an index of those before, from this position on.
    void SkipIndex(uint64_t mediaBegin);

    /// The media data's header as it was while recording, then its final size for data that ends
    /// at `mediaEnd`.
    void WriteMediaHeader(uint64_t mediaEnd);
    /// The index, at `mediaEnd`. @return the size of the file.
    uint64_t WriteIndex(uint64_t mediaEnd);

private:
    struct Visitor;

    void PlaceHeader();
    bool ApplyFormat(const VideoFormatRecord& format);
    bool ApplyFormat(const mp4_audio_track_info_t& info);
    bool ApplyFormat(const mp4_subtitle_track_info_t& info);
    bool ApplyFormat(const mp4_time_code_track_info_t& info);
    void ConfigureMovie(CMp4MoovAtom& movie) const;
    void FillLiveMovie(CMp4MoovAtom& movie, const std::vector<LiveTrack>& tracks) const;
    LiveIndex::FillMovie LiveMovie() const {
        return [this](CMp4MoovAtom& movie, const std::vector<LiveTrack>& tracks) {
            FillLiveMovie(movie, tracks);
        };
    }
    bool ApplyFrame(const FrameRecord& frame, uint64_t position);
    bool ApplyMetadata(const MetadataRecord& item);

    RepairOutput& m_output;
    const RecordingLayout m_layout;
    CMp4FreeAtom m_free;
    CMp4MdatAtom m_mdat;
    CMp4MoovAtom m_moov;
    const uint8_t m_flags;
    const bool m_compositionOffsets;
    Presentation m_presentation;
    LiveIndex m_live;  // off without one in the recording
    // What its movie box is made of.
    FurtherParameterSets m_furtherSets{FurtherParameterSets::Counts::kFirst};
    VideoFormatRecord m_video;
    mp4_audio_track_info_t m_audio{};
    mp4_subtitle_track_info_t m_captions{};
    mp4_time_code_track_info_t m_timecode{};
};

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_MOVIEREPLAY_H
