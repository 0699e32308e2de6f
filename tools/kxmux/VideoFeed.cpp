#include "VideoFeed.h"

#include <limits>

#include "AnnexBFeed.h"
#include "InputFormat.h"
#include "ProResFeed.h"

namespace kxmux {
namespace {

std::string RateText(const FrameRate& rate) {
    return std::to_string(rate.num) + (rate.den == 1 ? "" : "/" + std::to_string(rate.den));
}

std::string SizeText(uint32_t width, uint32_t height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

/// Whether the rates differ by more than streams round theirs. 30 and 30000/1001 do.
bool Contradict(const FrameRate& a, const FrameRate& b) {
    constexpr double kRounding = 1e-4;
    const double ratio = a.Hertz() / b.Hertz();
    return ratio < 1 - kRounding || ratio > 1 + kRounding;
}

}  // namespace

std::unique_ptr<VideoFeed> VideoFeed::Open(const VideoOptions& options, Input& input) {
    RequireRawVideo(options.codec, input.Head(kHeadSize));
    if (options.codec == MP4_MVC_PRORES) return std::make_unique<ProResFeed>(options, input);
    return std::make_unique<AnnexBFeed>(options, input);
}

std::string VideoFeed::Describe() const {
    return std::string(CodecName(m_options.codec)) + " " + SizeText(m_size.width, m_size.height) +
           ", " + RateText(m_rate) + " fps";
}

void VideoFeed::SetRate(const std::optional<FrameRate>& streamRate) {
    if (!m_options.rate && !streamRate) {
        throw Error(0, "the stream does not tell its frame rate; give it with --fps N or N/D");
    }
    m_rate = m_options.rate ? *m_options.rate : *streamRate;
    m_ticks = TicksOf(m_rate);
    if (streamRate && Contradict(m_rate, *streamRate)) {
        Warn("the stream says " + RateText(*streamRate) + " frames per second, recorded at " +
             RateText(m_rate) + "; --fps stream takes the stream's own");
    }
}

void VideoFeed::NoteSize(uint64_t frame, uint32_t width, uint32_t height) {
    if (m_streamWidth == 0) {
        m_streamWidth = width;
        m_streamHeight = height;
    }
    if (m_sizeChanged || (width == m_streamWidth && height == m_streamHeight)) return;
    m_sizeChanged = true;
    Warn("the picture changes from " + SizeText(m_streamWidth, m_streamHeight) + " to " +
         SizeText(width, height) + " at frame " + std::to_string(frame) +
         (m_options.splits ? "; another file begins there"
                           : "; the recording is described by the first size"));
}

void VideoFeed::SetSize(uint32_t width, uint32_t height) {
    if (m_options.size) {
        m_size = *m_options.size;
        return;
    }
    constexpr uint32_t kMax = std::numeric_limits<uint16_t>::max();
    if (width == 0 || height == 0 || width > kMax || height > kMax) {
        throw Error(0, "picture size " + SizeText(width, height) + " cannot be recorded");
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
