#include "TrackChecks.h"

#include <cstdint>
#include <utility>

#include "ConfigurationRecord.h"
#include "Log.h"
#include "ParameterSetKeeper.h"
#include "Presentation.h"

namespace kx_mp4 {
namespace {

constexpr const char* kSource = "src/TrackChecks";

mp4_status_t CheckPicture(const mp4_video_track_info_t& info) {
    if (info.timescale == 0) {
        LogError("invalid video timescale", kSource, __LINE__, "SetVideoTrack");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    if (info.width == 0 || info.height == 0) {
        LogError("invalid video width(%u) or height(%u)", kSource, __LINE__, "SetVideoTrack",
                 info.width, info.height);
        return MP4_STATUS_INVALID_PARAMETER;
    }
    return MP4_STATUS_SUCCESS;
}

mp4_status_t CheckParameterSets(mp4_video_track_info_t& info) {
    if (!ParameterSetKeeper::Normalise(info)) {
        LogError("negative parameter set size", kSource, __LINE__, "SetVideoTrack");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    if (info.codec != MP4_MVC_H264 && info.codec != MP4_MVC_HEVC && info.codec != MP4_MVC_PRORES) {
        LogError("invalid codec type %d", kSource, __LINE__, "SetVideoTrack", info.codec);
        return MP4_STATUS_INVALID_CODEC_TYPE;
    }
    if (!ParameterSetKeeper::AreUsable(info)) {
        LogError("the video parameter sets cannot be described, the track is refused", kSource,
                 __LINE__, "SetVideoTrack");
        return MP4_STATUS_UNEXPECTED_ERROR;
    }
    return MP4_STATUS_SUCCESS;
}

mp4_status_t CheckAudioCodec(const mp4_audio_track_info_t& info, bool complete) {
    switch (info.codec) {
        case MP4_MAC_AAC:
            if (complete) return MP4_STATUS_SUCCESS;
            LogError("invalid audio channel(%d) or sample rate(%d)", kSource, __LINE__,
                     "SetAudioTrack", info.channels, info.sample_rate);
            return MP4_STATUS_INVALID_PARAMETER;
        case MP4_MAC_ADTS:
            if (!complete)
                LogInfo("audio codec is adts, wait audio stream to get meta data", kSource,
                        __LINE__, "SetAudioTrack");
            return MP4_STATUS_SUCCESS;
        default:
            LogError("invalid audio codec %d", kSource, __LINE__, "SetAudioTrack", info.codec);
            return MP4_STATUS_INVALID_PARAMETER;
    }
}

}  // namespace

mp4_status_t CheckVideoTrack(mp4_video_track_info_t& info, const ReservedHeader& reserved,
                             bool& complete) {
    mp4_status_t status = CheckPicture(info);
    if (status != MP4_STATUS_SUCCESS) return status;
    status = reserved.CheckDuration(info.frame_duration, "SetVideoTrack");
    if (status != MP4_STATUS_SUCCESS) return status;
    status = CheckParameterSets(info);
    if (status != MP4_STATUS_SUCCESS) return status;
    complete = ParameterSetKeeper::IsComplete(info);
    return reserved.CheckConfiguration(complete, "video", "SetVideoTrack");
}

mp4_status_t TakeConfigurationRecord(const uint8_t* record, uint32_t size,
                                     mp4_video_track_info_t& info, uint32_t& lengthSize,
                                     std::vector<RecordedSet>& further) {
    auto read = ReadConfigurationRecord(info.codec, record, size);
    const bool fits = read && read->vps.size <= INT16_MAX && read->sps.size <= INT16_MAX &&
                      read->pps.size <= INT16_MAX;
    if (!fits) {
        LogError("the decoder configuration record cannot be read", kSource, __LINE__,
                 "SetVideoTrack");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    const auto sizeOf = [](const RecordedSet& set) { return static_cast<int16_t>(set.size); };
    if (info.codec == MP4_MVC_H264)
        info.h264 = {read->sps.data, sizeOf(read->sps), read->pps.data, sizeOf(read->pps)};
    else
        info.hevc = {read->sps.data,    sizeOf(read->sps), read->pps.data,
                     sizeOf(read->pps), read->vps.data,    sizeOf(read->vps)};
    lengthSize = read->lengthSize;
    further = std::move(read->further);
    return MP4_STATUS_SUCCESS;
}

mp4_status_t CheckAudioTrack(const mp4_audio_track_info_t& info, const ReservedHeader& reserved,
                             bool& complete) {
    if (info.timescale == 0) {
        LogError("invalid timescale in audio track", kSource, __LINE__, "SetAudioTrack");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    mp4_status_t status = reserved.CheckDuration(info.frame_duration, "SetAudioTrack");
    if (status != MP4_STATUS_SUCCESS) return status;
    complete = info.channels != 0 && info.sample_rate != 0;
    status = CheckAudioCodec(info, complete);
    if (status != MP4_STATUS_SUCCESS) return status;
    return reserved.CheckConfiguration(complete, "audio", "SetAudioTrack");
}

mp4_status_t CheckMetadata(const char* key, const char* data, uint32_t size,
                           mp4_meta_data_type_t type, const char* key_namespace) {
    if (key == nullptr || data == nullptr) {
        LogError("invalid meta data", kSource, __LINE__, "SetMetadata");
        return MP4_STATUS_INVALID_PARAMETER;
    }
    const bool sized = type == MP4_META_DATA_TYPE_INT || type == MP4_META_DATA_TYPE_RAW;
    if (sized && size == 0) {
        LogError("invalid meta(%s) data length 0", kSource, __LINE__, "SetMetadata", key);
        return MP4_STATUS_INVALID_PARAMETER;
    }
    if (Presentation::IsRecord(key, key_namespace) ||
        Presentation::IsParameterSet(key, key_namespace)) {
        LogError("the metadata key %s is the library's own", kSource, __LINE__, "SetMetadata", key);
        return MP4_STATUS_INVALID_PARAMETER;
    }
    return MP4_STATUS_SUCCESS;
}

}  // namespace kx_mp4
