#include "CaptionFeed.h"

#include <sstream>

namespace kxmux {
namespace {

std::string ReadAll(Input& input) {
    // A day of captions, two bytes a frame in four digits and a space, has 26 MB.
    constexpr size_t kMaxSize = size_t{64} << 20;
    PieceReader reader(input);
    while (reader.FillMore()) {
        if (reader.Size() > kMaxSize) throw StreamError("too long for a caption file");
    }
    return {reader.Data(), reader.Data() + reader.Size()};
}

}  // namespace

CaptionFeed::CaptionFeed(Input& input, uint32_t timescale)
    : TrackFeed(input.Path()), m_timescale(timescale) {
    std::istringstream text(ReadAll(input));
    SccFile captions;
    if (!captions.Read(text)) throw StreamError(captions.Error());
    m_packets = captions.Packets(timescale);
}

mp4_status_t CaptionFeed::Declare(FrameSink& sink) {
    const mp4_subtitle_track_info_t info = {MP4_SUBTITLE_CODEC_CC608, m_timescale};
    return sink.SetSubtitleTrack(&info);
}

mp4_status_t CaptionFeed::Write(FrameSink& sink) const {
    const CaptionPacket& packet = Next();
    const auto size = static_cast<uint32_t>(packet.bytes.size());
    return sink.WriteSubtitleFrame(packet.bytes.data(), size, NextTime().ticks);
}

}  // namespace kxmux
