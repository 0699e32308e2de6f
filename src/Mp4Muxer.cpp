#include "Mp4Muxer.h"

#include <algorithm>
#include <cstring>

#include "Log.h"
#include "MuxerState.h"

using kx_mp4::Guarded;
using kx_mp4::LogScope;
using kx_mp4::MuxerState;
using kx_mp4::Presentation;

namespace {

constexpr const char* kSource = "src/Mp4Muxer";

/// What every operation has around it: the object's log, and a status for whatever is thrown.
template <class Work>
mp4_status_t Operation(const MuxerState& state, Work&& work) {
    const LogScope log(state.m_log);
    return Guarded(work);
}

/// As much of a caller's record as both know; false when it does not hold its own size.
template <class Record>
bool CopyRecord(const Record& from, Record& to) {
    const size_t size = from.struct_size;
    if (size < sizeof size) return false;
    std::memcpy(&to, &from, std::min(size, sizeof to));
    to.struct_size = sizeof to;
    return true;
}

}  // namespace

CMp4Muxer::CMp4Muxer() : m_state(std::make_unique<MuxerState>()) {}

CMp4Muxer::~CMp4Muxer() {
    const LogScope log(m_state->m_log);
    m_state = nullptr;
}

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
    return Operation(*m_state, [&] {
        const kx_mp4::RecordingName name(pFilePath);
        return m_state->CreateOrRelease({name, MP4_CONTAINER_FROM_PATH, *config, nullptr});
    });
}

mp4_status_t CMp4Muxer::Create(std::string_view path, mp4_container container,
                               const mp4_config_t& config) {
    return Operation(*m_state, [&] {
        const kx_mp4::RecordingName name(path);
        return m_state->CreateOrRelease({name, container, config, nullptr});
    });
}

mp4_status_t CMp4Muxer::Create(std::string_view path, mp4_container container, uint32_t flags,
                               const mp4_io_callbacks_t& callbacks) {
    mp4_config_t config{};
    config.flags = flags;
    config.io_mode = MP4_IO_EXTERNAL;
    return Operation(*m_state, [&] {
        const kx_mp4::RecordingName name(path);
        return m_state->CreateOrRelease({name, container, config, &callbacks});
    });
}

mp4_status_t CMp4Muxer::Close() {
    const LogScope log(m_state->m_log);
    CMAutoLock lock(m_state->m_lockWrite);
    return m_state->Close();
}

void CMp4Muxer::SetLogCallback(mp4_log_callback_t function, void* user) {
    m_state->m_log = {function, user};
}

bool CMp4Muxer::IsOpen() {
    return m_state->m_isOpen;
}

bool CMp4Muxer::IsRepairInfoActive() const {
    return m_state->m_sideFile.IsActive();
}

int64_t CMp4Muxer::GetCurFileSize() {
    return m_state->m_nCurFileSize;
}

mp4_status_t CMp4Muxer::Flush() {
    return Operation(*m_state, [this] {
        const mp4_status_t status = m_state->Flush();
        m_state->m_isOpen = m_state->IsOpen();
        return status;
    });
}

uint64_t CMp4Muxer::GetDurationMS() {
    if (!IsOpen()) {
        const LogScope log(m_state->m_log);
        kx_mp4::LogError("no open file, can't get duration", kSource, __LINE__, "GetDurationMS");
        return 0;
    }
    return m_state->GetIndexFigures().durationMs;
}

uint32_t CMp4Muxer::GetMoovSize() {
    const LogScope log(m_state->m_log);
    return m_state->GetMoovSize();
}

double CMp4Muxer::GetVideoBitrate() {
    return m_state->GetIndexFigures().videoBitrate;
}

double CMp4Muxer::GetAudioBitrate() {
    return m_state->GetIndexFigures().audioBitrate;
}

mp4_status_t CMp4Muxer::GetStatistics(mp4_statistics_t* statistics) {
    if (statistics == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    return m_state->GetStatistics(*statistics);
}

mp4_status_t CMp4Muxer::SetRepairFlushInterval(uint32_t interval) {
    const LogScope log(m_state->m_log);
    return m_state->m_sideFile.SetFlushInterval(interval) ? MP4_STATUS_SUCCESS
                                                          : MP4_STATUS_INVALID_PARAMETER;
}

mp4_status_t CMp4Muxer::SetCompositionOffsets(bool enable) {
    return Operation(*m_state, [&] { return m_state->SetCompositionOffsets(enable); });
}

mp4_status_t CMp4Muxer::SetTimeline(bool keep_start_times) {
    return Operation(*m_state, [&] {
        return m_state->ChangePresentation("SetTimeline", [&](Presentation& presentation) {
            presentation.startTimes = keep_start_times;
        });
    });
}

mp4_status_t CMp4Muxer::SetAudioPriming(uint32_t samples) {
    return Operation(*m_state, [&] {
        return m_state->ChangePresentation("SetAudioPriming", [&](Presentation& presentation) {
            presentation.audioPriming = samples;
        });
    });
}

mp4_status_t CMp4Muxer::SetVideoShape(const mp4_video_shape_t& shape) {
    return Operation(*m_state, [&] {
        mp4_video_shape_t copy{};
        if (!CopyRecord(shape, copy) || !kx_mp4::IsPossible(copy))
            return MP4_STATUS_INVALID_PARAMETER;
        return m_state->ChangePresentation(
            "SetVideoShape", [&](Presentation& presentation) { presentation.shape = copy; });
    });
}

mp4_status_t CMp4Muxer::SetVideoColour(const mp4_video_colour_t& colour) {
    return Operation(*m_state, [&] {
        mp4_video_colour_t copy{};
        if (!CopyRecord(colour, copy)) return MP4_STATUS_INVALID_PARAMETER;
        return m_state->ChangePresentation(
            "SetVideoColour", [&](Presentation& presentation) { presentation.colour = copy; });
    });
}

mp4_status_t CMp4Muxer::SetStrictForm(bool strict) {
    return Operation(*m_state, [&] { return m_state->SetStrictForm(strict); });
}

mp4_status_t CMp4Muxer::SetAllParameterSets(bool all) {
    return Operation(*m_state, [&] {
        return m_state->ChangePresentation("SetAllParameterSets", [&](Presentation& presentation) {
            presentation.allParameterSets = all;
        });
    });
}

mp4_status_t CMp4Muxer::AddParameterSet(const uint8_t* nal, uint32_t size) {
    return Operation(*m_state, [&] {
        CMAutoLock lock(m_state->m_lockWrite);
        return m_state->AddParameterSet(nal, size);
    });
}

mp4_status_t CMp4Muxer::SetLiveIndex(uint32_t interval_ms) {
    return Operation(*m_state, [&] {
        CMAutoLock lock(m_state->m_lockWrite);
        return m_state->SetLiveIndex(interval_ms);
    });
}

mp4_status_t CMp4Muxer::SetVideoTrack(const mp4_video_track_info* pTrackInfo) {
    return Operation(*m_state, [&] { return m_state->SetVideoTrack(pTrackInfo); });
}

mp4_status_t CMp4Muxer::SetVideoTrack(const mp4_video_track_info* pTrackInfo, const uint8_t* record,
                                      uint32_t recordSize) {
    return Operation(*m_state,
                     [&] { return m_state->SetVideoTrack(pTrackInfo, record, recordSize); });
}

mp4_status_t CMp4Muxer::SetAudioTrack(const mp4_audio_track_info_t* pTrackInfo) {
    return Operation(*m_state, [&] { return m_state->SetAudioTrack(pTrackInfo); });
}

mp4_status_t CMp4Muxer::SetSubtitleTrack(const mp4_subtitle_track_info_t* pTrackInfo) {
    return Operation(*m_state, [&] { return m_state->SetSubtitleTrack(pTrackInfo); });
}

mp4_status_t CMp4Muxer::SetTCMDTrack(const mp4_time_code_track_info_t* pTrackInfo) {
    return Operation(*m_state, [&] { return m_state->SetTCMDTrack(pTrackInfo); });
}

mp4_status_t CMp4Muxer::SetMetadata(const char* pKey, const char* pData, uint32_t size,
                                    mp4_meta_data_type_t type, const char* key_namespace) {
    return Operation(*m_state,
                     [&] { return m_state->SetMetadata(pKey, pData, size, type, key_namespace); });
}

mp4_status_t CMp4Muxer::WriteVideoFrame(const uint8_t* buf, uint32_t size, uint64_t pts,
                                        uint64_t dts) {
    return Operation(*m_state, [&] { return m_state->WriteVideoFrame(buf, size, pts, dts); });
}

mp4_status_t CMp4Muxer::WriteAudioFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    const auto start = kx_mp4::Figures::Clock::now();
    return Operation(*m_state, [&] {
        if (buf == nullptr || size == 0) {
            kx_mp4::LogWarn("write audio frame with empty data", kSource, __LINE__,
                            "WriteAudioFrame");
            return MP4_STATUS_SUCCESS;
        }
        const MuxerState::FrameCall call(*m_state, start, size);
        return m_state->m_sideFile.Answer(m_state->WriteAudioFrame(buf, size, timestamp));
    });
}

mp4_status_t CMp4Muxer::WriteSubtitleFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp) {
    const auto start = kx_mp4::Figures::Clock::now();
    return Operation(*m_state, [&] {
        const mp4_status_t possible = m_state->m_reserved.CheckCaptions("WriteSubtitleFrame");
        if (possible != MP4_STATUS_SUCCESS) return possible;
        const MuxerState::FrameCall call(*m_state, start, size);
        return m_state->m_sideFile.Answer(m_state->WriteSubtitleFrame(buf, size, timestamp));
    });
}

mp4_status_t CMp4Muxer::WriteTimeCode(int nTimeCode) {
    const auto start = kx_mp4::Figures::Clock::now();
    return Operation(*m_state, [&] {
        const MuxerState::FrameCall call(*m_state, start, 0);
        return m_state->m_sideFile.Answer(m_state->WriteTimeCode(nTimeCode));
    });
}
