/// @file
/// Where feeds hand their frames: a muxer or a recorder, which have the same calls.
#ifndef KXMUX_FRAMESINK_H
#define KXMUX_FRAMESINK_H

#include <cstdint>
#include <string>

#include "kx_mp4/Mp4Muxer.h"
#include "kx_mp4/recorder.h"

namespace kxmux {

/// The calls of CMp4Muxer that declare and write.
class FrameSink {
public:
    FrameSink() = default;
    virtual ~FrameSink() = default;
    FrameSink(const FrameSink&) = delete;
    FrameSink& operator=(const FrameSink&) = delete;

    virtual mp4_status_t SetCompositionOffsets(bool enable) = 0;
    virtual mp4_status_t SetVideoTrack(const mp4_video_track_info* info) = 0;
    virtual mp4_status_t SetAudioTrack(const mp4_audio_track_info_t* info) = 0;
    virtual mp4_status_t SetSubtitleTrack(const mp4_subtitle_track_info_t* info) = 0;
    virtual mp4_status_t SetTCMDTrack(const mp4_time_code_track_info_t* info) = 0;
    virtual mp4_status_t SetMetadata(const std::string& key, const std::string& text) = 0;
    virtual mp4_status_t WriteVideoFrame(const uint8_t* bytes, uint32_t size, uint64_t pts,
                                         uint64_t dts) = 0;
    virtual mp4_status_t WriteAudioFrame(const uint8_t* bytes, uint32_t size, uint64_t time) = 0;
    virtual mp4_status_t WriteSubtitleFrame(const uint8_t* bytes, uint32_t size, uint64_t time) = 0;
    virtual mp4_status_t WriteTimeCode(int count) = 0;
};

/// Borrows a CMp4Muxer or a CMp4Recorder.
template <class Target>
class SinkOf final : public FrameSink {
public:
    explicit SinkOf(Target& target) : m_target(target) {}

    mp4_status_t SetCompositionOffsets(bool enable) override;
    mp4_status_t SetVideoTrack(const mp4_video_track_info* info) override {
        return m_target.SetVideoTrack(info);
    }
    mp4_status_t SetAudioTrack(const mp4_audio_track_info_t* info) override {
        return m_target.SetAudioTrack(info);
    }
    mp4_status_t SetSubtitleTrack(const mp4_subtitle_track_info_t* info) override {
        return m_target.SetSubtitleTrack(info);
    }
    mp4_status_t SetTCMDTrack(const mp4_time_code_track_info_t* info) override {
        return m_target.SetTCMDTrack(info);
    }
    mp4_status_t SetMetadata(const std::string& key, const std::string& text) override {
        return m_target.SetMetadata(key.c_str(), text.c_str(), 0, MP4_META_DATA_TYPE_STRING,
                                    nullptr);
    }
    mp4_status_t WriteVideoFrame(const uint8_t* bytes, uint32_t size, uint64_t pts,
                                 uint64_t dts) override {
        return m_target.WriteVideoFrame(bytes, size, pts, dts);
    }
    mp4_status_t WriteAudioFrame(const uint8_t* bytes, uint32_t size, uint64_t time) override {
        return m_target.WriteAudioFrame(bytes, size, time);
    }
    mp4_status_t WriteSubtitleFrame(const uint8_t* bytes, uint32_t size, uint64_t time) override {
        return m_target.WriteSubtitleFrame(bytes, size, time);
    }
    mp4_status_t WriteTimeCode(int count) override { return m_target.WriteTimeCode(count); }

private:
    Target& m_target;
};

template <>
inline mp4_status_t SinkOf<CMp4Muxer>::SetCompositionOffsets(bool enable) {
    return m_target.SetCompositionOffsets(enable);
}

/// It was told when it started.
template <>
inline mp4_status_t SinkOf<CMp4Recorder>::SetCompositionOffsets(bool) {
    return MP4_STATUS_SUCCESS;
}

}  // namespace kxmux

#endif  // KXMUX_FRAMESINK_H
