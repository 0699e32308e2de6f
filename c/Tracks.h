/// @file
/// The descriptions of tracks and metadata, handed on to a muxer or a recorder.
#ifndef KX_MP4_C_TRACKS_H
#define KX_MP4_C_TRACKS_H

#include <cstdint>

#include "Record.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

// What an application expects.
constexpr uint32_t kUsualFlags = KX_MP4_FLAG_64BIT_SIZE | KX_MP4_FLAG_REPAIR_INFO;
kx_mp4_video_track UsualVideoTrack();
kx_mp4_audio_track UsualAudioTrack();
kx_mp4_caption_track UsualCaptionTrack();
kx_mp4_timecode_track UsualTimecodeTrack();

// False for what the C++ description cannot say.
bool Describe(const kx_mp4_video_track& track, mp4_video_track_info_t& info);
bool Describe(const kx_mp4_audio_track& track, mp4_audio_track_info_t& info);

template <class Target>
mp4_status_t SetVideoTrack(Target& target, const kx_mp4_video_track* given) {
    kx_mp4_video_track track = UsualVideoTrack();
    mp4_video_track_info_t info{};
    if (!Take(given, track) || !Describe(track, info)) return MP4_STATUS_INVALID_PARAMETER;
    if (track.configuration_record == nullptr) return target.SetVideoTrack(&info);
    return target.SetVideoTrack(&info, track.configuration_record,
                                static_cast<uint32_t>(track.configuration_record_size));
}

template <class Target>
mp4_status_t SetAudioTrack(Target& target, const kx_mp4_audio_track* given) {
    kx_mp4_audio_track track = UsualAudioTrack();
    mp4_audio_track_info_t info{};
    if (!Take(given, track) || !Describe(track, info)) return MP4_STATUS_INVALID_PARAMETER;
    return target.SetAudioTrack(&info);
}

template <class Target>
mp4_status_t SetCaptionTrack(Target& target, const kx_mp4_caption_track* given) {
    kx_mp4_caption_track track = UsualCaptionTrack();
    if (!Take(given, track)) return MP4_STATUS_INVALID_PARAMETER;
    const mp4_subtitle_track_info_t info = {static_cast<mp4_subtitle_codec>(track.codec),
                                            track.timescale};
    return target.SetSubtitleTrack(&info);
}

template <class Target>
mp4_status_t SetTimecodeTrack(Target& target, const kx_mp4_timecode_track* given) {
    kx_mp4_timecode_track track = UsualTimecodeTrack();
    if (!Take(given, track) || track.timescale == 0) return MP4_STATUS_INVALID_PARAMETER;
    const mp4_time_code_track_info_t info = {track.timescale, track.frame_duration,
                                             track.frame_rate, track.flags};
    return target.SetTCMDTrack(&info);
}

template <class Target>
mp4_status_t SetMetadata(Target& target, const char* key, int type, const void* data, uint32_t size,
                         const char* key_namespace) {
    return target.SetMetadata(key, static_cast<const char*>(data), size,
                              static_cast<mp4_meta_data_type_t>(type), key_namespace);
}

}  // namespace kx_mp4

#endif  // KX_MP4_C_TRACKS_H
