#include "kx_mp4/recorder.h"

#include "PosixStorage.h"
#include "RecorderState.h"

using kx_mp4::RecorderReport;
using kx_mp4::RecorderStatistics;

namespace {

kx_mp4::IStorage& Files() {
    static kx_mp4::PosixStorage storage;
    return storage;
}

/// A status for whatever an operation throws: nothing escapes the public interface.
template <class Operation>
mp4_status_t Guarded(Operation&& operation) {
    try {
        return operation();
    } catch (...) {
        return MP4_STATUS_UNEXPECTED_ERROR;
    }
}

}  // namespace

CMp4Recorder::CMp4Recorder() : m_state(std::make_unique<kx_mp4::RecorderState>(Files())) {}

CMp4Recorder::~CMp4Recorder() {
    Stop(0);
}

mp4_status_t CMp4Recorder::Start(const kx_mp4::RecorderOptions& options) {
    return Guarded([&] { return m_state->Start(options); });
}

RecorderReport CMp4Recorder::Stop(uint32_t limit_ms) {
    return m_state->Stop(limit_ms);
}

mp4_status_t CMp4Recorder::SetVideoTrack(const mp4_video_track_info* pTrackInfo) {
    return Guarded([&] { return m_state->SetVideoTrack(pTrackInfo); });
}

mp4_status_t CMp4Recorder::SetVideoTrack(const mp4_video_track_info* pTrackInfo,
                                         const uint8_t* record, uint32_t recordSize) {
    return Guarded([&] { return m_state->SetVideoTrack(pTrackInfo, record, recordSize); });
}

mp4_status_t CMp4Recorder::SetAudioTrack(const mp4_audio_track_info_t* pTrackInfo) {
    return Guarded([&] { return m_state->SetAudioTrack(pTrackInfo); });
}

mp4_status_t CMp4Recorder::SetSubtitleTrack(const mp4_subtitle_track_info_t* pTrackInfo) {
    return Guarded([&] { return m_state->SetSubtitleTrack(pTrackInfo); });
}

mp4_status_t CMp4Recorder::SetTCMDTrack(const mp4_time_code_track_info_t* pTrackInfo) {
    return Guarded([&] { return m_state->SetTCMDTrack(pTrackInfo); });
}

mp4_status_t CMp4Recorder::SetMetadata(const char* pKey, const char* pData, uint32_t size,
                                       mp4_meta_data_type_t type, const char* key_namespace) {
    return Guarded([&] { return m_state->SetMetadata(pKey, pData, size, type, key_namespace); });
}

mp4_status_t CMp4Recorder::WriteVideoFrame(const uint8_t* buf, uint32_t size, uint64_t pts,
                                           uint64_t dts) {
    return Guarded([&] { return m_state->WriteVideoFrame(buf, size, pts, dts); });
}

mp4_status_t CMp4Recorder::WriteAudioFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    return Guarded([&] { return m_state->WriteAudioFrame(buf, size, timestamp); });
}

mp4_status_t CMp4Recorder::WriteSubtitleFrame(const uint8_t* buf, uint32_t size,
                                              uint64_t timestamp) {
    return Guarded([&] { return m_state->WriteSubtitleFrame(buf, size, timestamp); });
}

mp4_status_t CMp4Recorder::WriteTimeCode(int nTimeCode) {
    return Guarded([&] { return m_state->WriteTimeCode(nTimeCode); });
}

mp4_status_t CMp4Recorder::Cut() {
    return Guarded([&] { return m_state->Cut(); });
}

mp4_status_t CMp4Recorder::Pause() {
    return Guarded([&] { return m_state->Pause(); });
}

mp4_status_t CMp4Recorder::Resume() {
    return Guarded([&] { return m_state->Resume(); });
}

RecorderStatistics CMp4Recorder::GetStatistics() const {
    return m_state->Statistics();
}
