#include "ProResFeed.h"

namespace kxmux {

ProResFeed::ProResFeed(const VideoOptions& options)
    : VideoFeed(options), m_source(options.path), m_cutter(m_source) {
    if (!Prepare()) throw Error(0, "the input is empty");
    SetSize(m_frame.width, m_frame.height);
    m_format = options.proResFormat.value_or(m_frame.is444 ? MP4_PRORES_4444 : MP4_PRORES_422);
}

mp4_status_t ProResFeed::Declare(CMp4Muxer& muxer) {
    mp4_video_track_info_t info = BaseInfo();
    info.prores.format = m_format;
    return muxer.SetVideoTrack(&info);
}

mp4_status_t ProResFeed::Write(CMp4Muxer& muxer) {
    const uint64_t time = NextTime().ticks;
    const auto size = static_cast<uint32_t>(m_frame.size);
    const mp4_status_t status = muxer.WriteVideoFrame(m_frame.data, size, time, time);
    if (status == MP4_STATUS_SUCCESS) CountFrame(m_frame.size);
    return status;
}

}  // namespace kxmux
