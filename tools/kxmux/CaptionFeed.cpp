#include "CaptionFeed.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace kxmux {

CaptionFeed::CaptionFeed(const std::string& path, uint32_t timescale)
    : TrackFeed(path), m_timescale(timescale) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw RecordingError(path + ": cannot be opened: " + strerror(errno));
    SccFile captions;
    if (!captions.Read(file)) throw RecordingError(path + ": " + captions.Error());
    m_packets = captions.Packets(timescale);
}

mp4_status_t CaptionFeed::Declare(CMp4Muxer& muxer) {
    const mp4_subtitle_track_info_t info = {MP4_SUBTITLE_CODEC_CC608, m_timescale};
    return muxer.SetSubtitleTrack(&info);
}

mp4_status_t CaptionFeed::Write(CMp4Muxer& muxer) {
    const CaptionPacket& packet = Next();
    const auto size = static_cast<uint32_t>(packet.bytes.size());
    const mp4_status_t status =
        muxer.WriteSubtitleFrame(packet.bytes.data(), size, packet.timestamp);
    if (status == MP4_STATUS_SUCCESS) CountFrame(packet.bytes.size());
    return status;
}

}  // namespace kxmux
