#include "MovieReplay.h"

#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

struct MovieReplay::Visitor {
    MovieReplay& replay;
    uint64_t position;

    bool operator()(const FrameRecord& frame) const { return replay.ApplyFrame(frame, position); }
    bool operator()(const MetadataRecord& item) const { return replay.ApplyMetadata(item); }
    template <class Format>
    bool operator()(const Format& format) const {
        return replay.ApplyFormat(format);
    }
};

MovieReplay::MovieReplay(RepairOutput& output, const RecordingLayout& layout, uint8_t flags,
                         bool compositionOffsets)
    : m_output(output),
      m_layout(layout),
      m_free(&output),
      m_mdat(&output, layout.largeMdat),
      m_moov(&output, false, nullptr),
      m_flags(flags),
      m_compositionOffsets(compositionOffsets) {
    ConfigureMovie(m_moov);
    m_moov.SetCompositionOffsets(compositionOffsets);
    m_mdat.SetFreeBoxBefore(!layout.quicktime);
    if (layout.live) {
        m_live.SetInterval(1);  // the intervals are those of the recording
        m_live.Resume(output, static_cast<int64_t>(layout.liveHeader));
    }
    PlaceHeader();
}

void MovieReplay::ConfigureMovie(CMp4MoovAtom& movie) const {
    if ((m_flags & MP4_FLAG_64BIT_SIZE) != 0) movie.SetUse64bitSize();
    if ((m_flags & MP4_FLAG_64BIT_TIME) != 0) movie.SetUse64bitTime();
    movie.m_meta.SetIsQtff(true);
    movie.SetIsMp4File(!m_layout.quicktime);
    movie.SetPresentation(m_presentation);
}

void MovieReplay::FillLiveMovie(CMp4MoovAtom& movie, const std::vector<LiveTrack>& tracks) const {
    ConfigureMovie(movie);
    movie.CopyMetadata(m_moov);
    const mp4_video_track_info_t video = m_video.Info();
    for (const LiveTrack track : tracks) {
        switch (track) {
            case LiveTrack::kVideo:
                movie.SetVideoTrack(&video);
                m_furtherSets.ForEach([&movie](const auto& set) { movie.AddParameterSet(set); });
                break;
            case LiveTrack::kAudio:
                movie.SetAudioTrack(&m_audio);
                break;
            case LiveTrack::kCaption:
                movie.SetSubtitleTrack(&m_captions);
                break;
            case LiveTrack::kTimecode:
                movie.SetTCMDTrack(&m_timecode);
                break;
        }
    }
}

bool MovieReplay::ApplyFormat(const VideoFormatRecord& format) {
    m_video = format;
    m_furtherSets.Clear();
    const mp4_video_track_info_t info = m_video.Info();
    m_live.Declare(LiveTrack::kVideo, true, info.timescale, info.frame_duration);
    return m_moov.SetVideoTrack(&info);
}

bool MovieReplay::ApplyFormat(const mp4_audio_track_info_t& info) {
    m_audio = info;
    m_live.Declare(LiveTrack::kAudio, true, info.timescale, info.frame_duration);
    return m_moov.SetAudioTrack(&info);
}

bool MovieReplay::ApplyFormat(const mp4_subtitle_track_info_t& info) {
    m_captions = info;
    m_live.Declare(LiveTrack::kCaption, true, info.timescale, 0);
    return m_moov.SetSubtitleTrack(&info);
}

bool MovieReplay::ApplyFormat(const mp4_time_code_track_info_t& info) {
    m_timecode = info;
    m_live.Declare(LiveTrack::kTimecode, true, info.timescale, info.frame_duration);
    return m_moov.SetTCMDTrack(&info);
}

void MovieReplay::SkipIndex(uint64_t mediaBegin) {
    m_live.SkipIndex(static_cast<int64_t>(mediaBegin) - LiveIndex::kMdatHeaderSize);
    m_moov.EndChunk();
}

void MovieReplay::PlaceHeader() {
    if (m_layout.live) return;
    const auto mdat = static_cast<int64_t>(m_layout.mdatPosition);
    m_output.Seek(m_layout.quicktime ? mdat : mdat - kBoxHeaderSize, SEEK_SET);
    if (!m_layout.quicktime) m_free.Write();
    m_mdat.Write();
}

bool MovieReplay::Apply(const InfoRecord& record, uint64_t position) {
    return std::visit(Visitor{*this, position}, record);
}

bool MovieReplay::HasRoomFor(const FrameRecord& frame, uint64_t position) const {
    const bool narrow = frame.track == kRepairCaption;  // caption tracks stay at 32-bit offsets
    return CanEndAt(position + frame.size) && (!narrow || position <= UINT32_MAX);
}

bool MovieReplay::ApplyFrame(const FrameRecord& frame, uint64_t position) {
    const auto offset = static_cast<int64_t>(position);
    const auto size = static_cast<int>(frame.size);
    const auto note = [&](LiveTrack track, int64_t pts, int64_t dts, bool sync) {
        m_live.AddSample(track, offset, frame.size, pts, dts, sync);
    };
    switch (frame.track) {
        case kRepairVideo:
            if (!m_moov.AfterWriteVideoFrame(offset, size, frame.pts, frame.dts, frame.sync))
                return false;
            note(LiveTrack::kVideo, m_compositionOffsets ? frame.pts : frame.dts, frame.dts,
                 frame.sync);
            return true;
        case kRepairAudio:
            if (!m_moov.AfterWriteAudioFrame(offset, size, frame.pts)) return false;
            note(LiveTrack::kAudio, frame.pts, frame.pts, true);
            return true;
        case kRepairCaption:
            m_moov.AfterWriteSubtitleFrame(offset, size, frame.pts);
            note(LiveTrack::kCaption, frame.pts, frame.pts, true);
            return true;
        default:
            m_moov.AfterWriteTimeCode(offset);
            note(LiveTrack::kTimecode, 0, 0, true);
            return true;
    }
}

bool MovieReplay::ApplyMetadata(const MetadataRecord& item) {
    const char* const key = item.key.c_str();
    const char* const space = item.has_namespace ? item.name_space.c_str() : nullptr;
    if (Presentation::IsRecord(key, space) && m_presentation.Read(item.data)) {
        m_moov.SetPresentation(m_presentation);
        return true;
    }
    if (Presentation::IsParameterSet(key, space)) {
        const auto* const nal = reinterpret_cast<const uint8_t*>(item.data.data());
        const auto* const set = m_furtherSets.Take(m_video.Info(), nal, item.data.size());
        if (set != nullptr) m_moov.AddParameterSet(*set);
        return true;
    }
    return m_moov.SetMetaData(key, item.data.data(), static_cast<uint32_t>(item.data.size()),
                              item.type, space);
}

void MovieReplay::WriteMediaHeader(uint64_t mediaEnd) {
    if (m_layout.live) return;  // the last step of the index
    PlaceHeader();
    m_output.Seek(static_cast<int64_t>(mediaEnd), SEEK_SET);
    m_mdat.Finish(nullptr);
}

uint64_t MovieReplay::WriteIndex(uint64_t mediaEnd) {
    m_output.Seek(static_cast<int64_t>(mediaEnd), SEEK_SET);
    if (!m_layout.live) {
        m_moov.Write();
        return m_output.Ftell();
    }
    LiveIndex live = m_live;  // the index may be written more than once, for trial first
    live.EndLastInterval(LiveMovie());
    const auto movieBox = static_cast<int64_t>(m_output.Ftell());
    m_moov.Write();
    live.Finish(movieBox);
    return m_output.Ftell();
}

}  // namespace kx_mp4
