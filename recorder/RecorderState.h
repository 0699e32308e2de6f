/// @file
/// What stands behind CMp4Recorder: one recording after the other.
#ifndef KX_MP4_RECORDER_RECORDERSTATE_H
#define KX_MP4_RECORDER_RECORDERSTATE_H

#include <atomic>
#include <memory>
#include <mutex>

#include "Recording.h"
#include "Storage.h"
#include "kx_mp4/Mp4Muxer.h"
#include "kx_mp4/recorder.h"

namespace kx_mp4 {

/// The operations are those of CMp4Recorder.
class RecorderState {
public:
    /// The storage outlives it.
    explicit RecorderState(IStorage& storage) : m_storage(storage) {}
    RecorderState(const RecorderState&) = delete;
    RecorderState& operator=(const RecorderState&) = delete;
    ~RecorderState() = default;

    mp4_status_t Start(const RecorderOptions& options);
    RecorderReport Stop(uint32_t limitMs);

    mp4_status_t SetVideoTrack(const mp4_video_track_info* info);
    mp4_status_t SetVideoTrack(const mp4_video_track_info* info, const uint8_t* record,
                               uint32_t recordSize);
    mp4_status_t SetAudioTrack(const mp4_audio_track_info_t* info);
    mp4_status_t SetSubtitleTrack(const mp4_subtitle_track_info_t* info);
    mp4_status_t SetTCMDTrack(const mp4_time_code_track_info_t* info);
    mp4_status_t SetMetadata(const char* key, const char* data, uint32_t size,
                             mp4_meta_data_type_t type, const char* keySpace);

    mp4_status_t WriteVideoFrame(const uint8_t* bytes, uint32_t size, uint64_t pts, uint64_t dts);
    mp4_status_t WriteAudioFrame(const uint8_t* bytes, uint32_t size, uint64_t time);
    mp4_status_t WriteSubtitleFrame(const uint8_t* bytes, uint32_t size, uint64_t time);
    mp4_status_t WriteTimeCode(int count);

    mp4_status_t Cut();
    mp4_status_t Pause();
    mp4_status_t Resume();
    RecorderStatistics Statistics() const;

private:
    std::shared_ptr<Recording> Current() const;
    mp4_status_t OpenProbe(const RecorderOptions& options);
    template <class Declare>
    mp4_status_t DoWithWriter(Declare declare);
    mp4_status_t DeclareVideo(const mp4_video_track_info_t& info, bool hasLengths);
    mp4_status_t Put(FrameKind kind, const uint8_t* bytes, uint32_t size, uint64_t pts,
                     uint64_t dts, bool key);

    IStorage& m_storage;
    std::mutex m_setup;         // one of Start, Stop and the declarations at a time
    CMp4Muxer m_probe;          // says what a file would say of a declaration
    mutable std::mutex m_lock;  // of the pointer
    std::shared_ptr<Recording> m_recording;
    std::atomic<int> m_codec{MP4_MVC_UNKNOWN};
    std::atomic<bool> m_hasLengths{false};
    std::atomic<bool> m_hasAudio{false};
    std::atomic<bool> m_hasCaptions{false};
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_RECORDERSTATE_H
