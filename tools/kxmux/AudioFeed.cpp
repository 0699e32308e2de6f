#include "AudioFeed.h"

#include "InputFormat.h"

namespace kxmux {
namespace {

constexpr uint32_t kSamplesPerFrame = 1024;  // of every AAC frame that ADTS carries

}  // namespace

AudioFeed::AudioFeed(Input& input, bool deferred)
    : TrackFeed(input.Path()), m_cutter(input), m_deferred(deferred) {
    RequireAdts(input.Head(kHeadSize));
    RequireFirst("the input is empty");
    m_header = m_frame.header;
}

mp4_status_t AudioFeed::Declare(FrameSink& sink) {
    mp4_audio_track_info_t info = {};
    info.timescale = SampleRate();
    info.frame_duration = kSamplesPerFrame;
    info.codec = MP4_MAC_ADTS;
    if (!m_deferred) {
        // The field keeps the low 16 bits of 88200 and 96000, which stand for them.
        info.sample_rate = static_cast<uint16_t>(m_header.SampleRate());
        info.channels = m_header.channels;
        info.profile = m_header.objectType;
    }
    return sink.SetAudioTrack(&info);
}

MediaTime AudioFeed::OwnTime() const {
    return {Frames() * kSamplesPerFrame, SampleRate()};
}

mp4_status_t AudioFeed::Write(FrameSink& sink) const {
    const auto size = static_cast<uint32_t>(m_frame.size);
    return sink.WriteAudioFrame(m_frame.data, size, NextTime().ticks);
}

std::string AudioFeed::Describe() const {
    return "AAC " + std::to_string(m_header.SampleRate()) + " Hz, channel configuration " +
           std::to_string(m_header.channels);
}

std::string AudioFeed::Note() const {
    if (m_cutter.SkippedBytes() == 0) return {};
    return std::to_string(m_cutter.SkippedBytes()) + " bytes before the first ADTS frame skipped";
}

}  // namespace kxmux
