#include "Tracks.h"

#include <limits>

namespace kx_mp4 {
namespace {

template <class Record>
Record Sized() {
    Record record{};
    record.struct_size = sizeof record;
    return record;
}

/// One parameter set; the description counts its bytes in 16 bits.
bool Put(const uint8_t* bytes, size_t size, const uint8_t*& set, int16_t& setSize) {
    if (bytes == nullptr) return size == 0;
    if (size == 0 || size > size_t{std::numeric_limits<int16_t>::max()}) return false;
    set = bytes;
    setSize = static_cast<int16_t>(size);
    return true;
}

}  // namespace

kx_mp4_video_track UsualVideoTrack() {
    auto track = Sized<kx_mp4_video_track>();
    track.timescale = 90000;
    track.codec = KX_MP4_VIDEO_H264;
    return track;
}

kx_mp4_audio_track UsualAudioTrack() {
    auto track = Sized<kx_mp4_audio_track>();
    track.frame_duration = 1024;
    track.codec = KX_MP4_AUDIO_AAC;
    track.sample_rate = 48000;
    track.channels = 2;
    track.object_type = 2;
    return track;
}

kx_mp4_caption_track UsualCaptionTrack() {
    auto track = Sized<kx_mp4_caption_track>();
    track.timescale = 1000;
    track.codec = KX_MP4_CAPTIONS_CEA608;
    return track;
}

kx_mp4_timecode_track UsualTimecodeTrack() {
    auto track = Sized<kx_mp4_timecode_track>();
    track.timescale = 90000;
    return track;
}

bool Describe(const kx_mp4_video_track& track, mp4_video_track_info_t& info) {
    info.timescale = track.timescale;
    info.frame_duration = track.frame_duration;
    info.codec = static_cast<mp4_video_codec>(track.codec);
    info.width = track.width;
    info.height = track.height;
    if (track.configuration_record != nullptr)
        return track.configuration_record_size <= std::numeric_limits<uint32_t>::max();
    switch (track.codec) {
        case KX_MP4_VIDEO_H264:
            return Put(track.sps, track.sps_size, info.h264.sps, info.h264.sps_size) &&
                   Put(track.pps, track.pps_size, info.h264.pps, info.h264.pps_size);
        case KX_MP4_VIDEO_HEVC:
            return Put(track.vps, track.vps_size, info.hevc.vps, info.hevc.vps_size) &&
                   Put(track.sps, track.sps_size, info.hevc.sps, info.hevc.sps_size) &&
                   Put(track.pps, track.pps_size, info.hevc.pps, info.hevc.pps_size);
        case KX_MP4_VIDEO_PRORES:
            info.prores.format = static_cast<mp4_prores_format>(track.prores_format);
            return true;
        default:
            return true;  // refused by its own status
    }
}

bool Describe(const kx_mp4_audio_track& track, mp4_audio_track_info_t& info) {
    constexpr uint32_t kWrapped[] = {88200, 96000};  // their low bits stand for them
    const bool fits = track.sample_rate <= std::numeric_limits<uint16_t>::max() ||
                      track.sample_rate == kWrapped[0] || track.sample_rate == kWrapped[1];
    if (!fits || track.object_type > std::numeric_limits<uint8_t>::max()) return false;
    info.timescale = track.timescale != 0 ? track.timescale : track.sample_rate;
    info.frame_duration = track.frame_duration;
    info.codec = static_cast<mp4_audio_codec>(track.codec);
    info.sample_rate = static_cast<uint16_t>(track.sample_rate);
    info.channels = track.channels;
    info.profile = static_cast<uint8_t>(track.object_type);
    return true;
}

}  // namespace kx_mp4
