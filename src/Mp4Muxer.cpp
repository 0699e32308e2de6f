#include "Mp4Muxer.h"

#include "MuxerState.h"
#include "zv_log.h"

using kx_mp4::Guarded;

namespace {
constexpr const char* kSource = "src/Mp4Muxer";
}  // namespace

CMp4Muxer::CMp4Muxer() : m_state(std::make_unique<kx_mp4::MuxerState>()) {}
CMp4Muxer::~CMp4Muxer() = default;

mp4_status_t CMp4Muxer::Create(const wchar_t* pFilePath, uint32_t nBlockSize,
                               uint32_t nBufferBlocks, uint8_t uFlag, mp4_io_mode ioMode,
                               mp4_file_io_func_t* pFunc) {
    mp4_config_t config{};
    config.flags = uFlag;
    config.io_mode = ioMode;
    config.direct_io_config = {nBlockSize, nBufferBlocks};
    config.func = pFunc;
    return Create(pFilePath, &config);
}

mp4_status_t CMp4Muxer::Create(const wchar_t* pFilePath, mp4_config_t* config) {
    if (pFilePath == nullptr || config == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    if (m_state->m_pWriter != nullptr) return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
    const mp4_status_t status = Guarded([&] { return m_state->Create(pFilePath, *config); });
    if (status != MP4_STATUS_SUCCESS) Close();
    return status;
}

mp4_status_t CMp4Muxer::Close() {
    CMAutoLock lock(m_state->m_lockWrite);
    return m_state->Close();
}

bool CMp4Muxer::IsOpen() {
    return m_state->IsOpen();
}

bool CMp4Muxer::IsRepairInfoActive() const {
    return m_state->m_sideFile.IsActive();
}

int64_t CMp4Muxer::GetCurFileSize() {
    return m_state->m_nCurFileSize;
}

mp4_status_t CMp4Muxer::Flush() {
    return Guarded([this] { return m_state->Flush(); });
}

uint64_t CMp4Muxer::GetDurationMS() {
    CMAutoLock lock(m_state->m_lockWrite);
    if (!IsOpen()) {
        zv_log_error("no open file, can't get duration", kSource, __LINE__, "GetDurationMS");
        return 0;
    }
    return m_state->m_moov->GetDurationMS();
}

uint32_t CMp4Muxer::GetMoovSize() {
    return m_state->m_moov != nullptr ? m_state->m_moov->GetSize() : 0;
}

double CMp4Muxer::GetVideoBitrate() {
    return m_state->m_moov != nullptr ? m_state->m_moov->GetVideoBitrate() : -1.0;
}

double CMp4Muxer::GetAudioBitrate() {
    return m_state->m_moov != nullptr ? m_state->m_moov->GetAudioBitrate() : -1.0;
}

mp4_status_t CMp4Muxer::SetRepairFlushInterval(uint32_t interval) {
    return m_state->m_sideFile.SetFlushInterval(interval) ? MP4_STATUS_SUCCESS
                                                          : MP4_STATUS_INVALID_PARAMETER;
}

mp4_status_t CMp4Muxer::SetCompositionOffsets(bool enable) {
    return m_state->SetCompositionOffsets(enable);
}

mp4_status_t CMp4Muxer::SetLiveIndex(uint32_t interval_ms) {
    CMAutoLock lock(m_state->m_lockWrite);
    return Guarded([&] { return m_state->SetLiveIndex(interval_ms); });
}

mp4_status_t CMp4Muxer::SetVideoTrack(const mp4_video_track_info* pTrackInfo) {
    return Guarded([&] { return m_state->SetVideoTrack(pTrackInfo); });
}

mp4_status_t CMp4Muxer::SetAudioTrack(const mp4_audio_track_info_t* pTrackInfo) {
    return Guarded([&] { return m_state->SetAudioTrack(pTrackInfo); });
}

mp4_status_t CMp4Muxer::SetSubtitleTrack(const mp4_subtitle_track_info_t* pTrackInfo) {
    return Guarded([&] { return m_state->SetSubtitleTrack(pTrackInfo); });
}

mp4_status_t CMp4Muxer::SetTCMDTrack(const mp4_time_code_track_info_t* pTrackInfo) {
    return Guarded([&] { return m_state->SetTCMDTrack(pTrackInfo); });
}

mp4_status_t CMp4Muxer::SetMetadata(const char* pKey, const char* pData, uint32_t size,
                                    mp4_meta_data_type_t type, const char* key_namespace) {
    return Guarded([&] { return m_state->SetMetadata(pKey, pData, size, type, key_namespace); });
}

mp4_status_t CMp4Muxer::WriteVideoFrame(const uint8_t* buf, uint32_t size, uint64_t pts,
                                        uint64_t dts) {
    return Guarded([&] { return m_state->WriteVideoFrame(buf, size, pts, dts); });
}

mp4_status_t CMp4Muxer::WriteAudioFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    if (buf == nullptr || size == 0) {
        zv_log_warn("write audio frame with empty data", kSource, __LINE__, "WriteAudioFrame");
        return MP4_STATUS_SUCCESS;
    }
    return Guarded([&] {
        CMAutoLock lock(m_state->m_lockWrite);
        return m_state->m_sideFile.Answer(m_state->WriteAudioFrame(buf, size, timestamp));
    });
}

mp4_status_t CMp4Muxer::WriteSubtitleFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    const mp4_status_t possible = m_state->m_reserved.CheckCaptions("WriteSubtitleFrame");
    if (possible != MP4_STATUS_SUCCESS) return possible;
    return Guarded([&] {
        CMAutoLock lock(m_state->m_lockWrite);
        return m_state->m_sideFile.Answer(m_state->WriteSubtitleFrame(buf, size, timestamp));
    });
}

mp4_status_t CMp4Muxer::WriteTimeCode(int nTimeCode) {
    return Guarded([&] {
        CMAutoLock lock(m_state->m_lockWrite);
        return m_state->m_sideFile.Answer(m_state->WriteTimeCode(nTimeCode));
    });
}
