#include "MovieReplay.h"

#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

struct MovieReplay::Visitor {
    MovieReplay& replay;
    uint64_t position;

    bool operator()(const FrameRecord& frame) const { return replay.ApplyFrame(frame, position); }
    bool operator()(const MetadataRecord& item) const { return replay.ApplyMetadata(item); }
    bool operator()(const VideoFormatRecord& format) const {
        const mp4_video_track_info_t info = format.Info();
        return replay.m_moov.SetVideoTrack(&info);
    }
    bool operator()(const mp4_audio_track_info_t& info) const {
        return replay.m_moov.SetAudioTrack(&info);
    }
    bool operator()(const mp4_subtitle_track_info_t& info) const {
        return replay.m_moov.SetSubtitleTrack(&info);
    }
    bool operator()(const mp4_time_code_track_info_t& info) const {
        return replay.m_moov.SetTCMDTrack(&info);
    }
};

MovieReplay::MovieReplay(RepairOutput& output, const RecordingLayout& layout, uint8_t flags,
                         bool compositionOffsets)
    : m_output(output),
      m_layout(layout),
      m_free(&output),
      m_mdat(&output, layout.largeMdat),
      m_moov(&output, false, nullptr) {
    if ((flags & MP4_FLAG_64BIT_SIZE) != 0) m_moov.SetUse64bitSize();
    if ((flags & MP4_FLAG_64BIT_TIME) != 0) m_moov.SetUse64bitTime();
    m_moov.m_meta.SetIsQtff(true);
    m_moov.SetIsMp4File(!layout.quicktime);
    m_moov.SetCompositionOffsets(compositionOffsets);
    m_mdat.SetFreeBoxBefore(!layout.quicktime);
    PlaceHeader();
}

void MovieReplay::PlaceHeader() {
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
    return m_mdat.CanEndAt(static_cast<int64_t>(position + frame.size)) &&
           (!narrow || position <= UINT32_MAX);
}

bool MovieReplay::ApplyFrame(const FrameRecord& frame, uint64_t position) {
    const auto offset = static_cast<int64_t>(position);
    const auto size = static_cast<int>(frame.size);
    switch (frame.track) {
        case kRepairVideo:
            return m_moov.AfterWriteVideoFrame(offset, size, frame.pts, frame.dts, frame.sync);
        case kRepairAudio:
            return m_moov.AfterWriteAudioFrame(offset, size, frame.pts);
        case kRepairCaption:
            m_moov.AfterWriteSubtitleFrame(offset, size, frame.pts);
            return true;
        default:
            m_moov.AfterWriteTimeCode(offset);
            return true;
    }
}

bool MovieReplay::ApplyMetadata(const MetadataRecord& item) {
    return m_moov.SetMetaData(item.key.c_str(), item.data.data(),
                              static_cast<uint32_t>(item.data.size()), item.type,
                              item.has_namespace ? item.name_space.c_str() : nullptr);
}

void MovieReplay::WriteMediaHeader(uint64_t mediaEnd) {
    PlaceHeader();
    m_output.Seek(static_cast<int64_t>(mediaEnd), SEEK_SET);
    m_mdat.Finish(nullptr);
}

uint64_t MovieReplay::WriteIndex(uint64_t mediaEnd) {
    m_output.Seek(static_cast<int64_t>(mediaEnd), SEEK_SET);
    m_moov.Write();
    return m_output.Ftell();
}

}  // namespace kx_mp4
