#include "ProResFeed.h"

namespace kxmux {

ProResFeed::ProResFeed(const VideoOptions& options, Input& input)
    : VideoFeed(options), m_cutter(input) {
    RequireFirst("the input is empty");
    SetRate(m_frame.rate);
    SetSize(m_frame.width, m_frame.height);
    m_format = options.proResFormat.value_or(m_frame.is444 ? MP4_PRORES_4444 : MP4_PRORES_422);
}

bool ProResFeed::ReadFrame() {
    if (!m_cutter.Next(m_frame)) return false;
    NoteSize(Frames(), m_frame.width, m_frame.height);
    return true;
}

mp4_status_t ProResFeed::Declare(FrameSink& sink) {
    mp4_video_track_info_t info = BaseInfo();
    info.prores.format = m_format;
    return sink.SetVideoTrack(&info);
}

mp4_status_t ProResFeed::Write(FrameSink& sink) const {
    const uint64_t time = NextTime().ticks;
    const auto size = static_cast<uint32_t>(m_frame.size);
    return sink.WriteVideoFrame(m_frame.data, size, time, time);
}

}  // namespace kxmux
