#include "VideoFeed.h"

#include <limits>

#include "AnnexBFeed.h"
#include "ProResFeed.h"

namespace kxmux {
namespace {

const char* CodecName(mp4_video_codec codec) {
    switch (codec) {
        case MP4_MVC_H264:
            return "H.264";
        case MP4_MVC_HEVC:
            return "HEVC";
        default:
            return "ProRes";
    }
}

}  // namespace

std::unique_ptr<VideoFeed> VideoFeed::Open(const VideoOptions& options) {
    if (options.codec == MP4_MVC_PRORES) return std::make_unique<ProResFeed>(options);
    return std::make_unique<AnnexBFeed>(options);
}

std::string VideoFeed::Describe() const {
    const FrameRate& rate = m_options.rate;
    std::string text = CodecName(m_options.codec);
    text += " " + std::to_string(m_size.width) + "x" + std::to_string(m_size.height) + ", ";
    text += std::to_string(rate.num);
    if (rate.den != 1) text += "/" + std::to_string(rate.den);
    return text + " fps";
}

void VideoFeed::SetSize(uint32_t width, uint32_t height) {
    if (m_options.size) {
        m_size = *m_options.size;
        return;
    }
    constexpr uint32_t kMax = std::numeric_limits<uint16_t>::max();
    if (width == 0 || height == 0 || width > kMax || height > kMax) {
        throw Error(0, "picture size " + std::to_string(width) + "x" + std::to_string(height) +
                           " cannot be recorded");
    }
    m_size = {static_cast<uint16_t>(width), static_cast<uint16_t>(height)};
}

mp4_video_track_info_t VideoFeed::BaseInfo() const {
    mp4_video_track_info_t info = {};
    info.timescale = m_ticks.timescale;
    info.frame_duration = m_ticks.perFrame;
    info.codec = m_options.codec;
    info.width = m_size.width;
    info.height = m_size.height;
    return info;
}

}  // namespace kxmux
