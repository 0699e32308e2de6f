#include <memory>
#include <string_view>
#include <utility>

#include "Call.h"
#include "Record.h"
#include "Tracks.h"
#include "kx_mp4/Mp4Muxer.h"
#include "kx_mp4/buffered_io.h"
#include "kx_mp4/kx_mp4_c.h"
#include "kx_mp4/zv_log.h"

using kx_mp4::Call;

struct kx_mp4_muxer {
    kx_mp4_muxer();

    std::unique_ptr<kx_mp4::BufferedOutput> buffer;  // outlives the muxer that writes to it
    mutable CMp4Muxer muxer;  // its queries are not const, but change nothing
    kx_mp4::LastError error;
    kx_mp4_log_callback log = nullptr;
    void* logUser = nullptr;
};

namespace {

void LogAtLinkTime(mp4_log_level_t level, const char* source, int line, const char* operation,
                   const char* text) {
    switch (level) {
        case MP4_LOG_ERROR:
            return zv_log_error("%s", source, line, operation, text);
        case MP4_LOG_WARNING:
            return zv_log_warn("%s", source, line, operation, text);
        default:
            return zv_log_info("%s", source, line, operation, text);
    }
}

void OnLog(void* user, mp4_log_level_t level, const char* source, int line, const char* operation,
           const char* text) {
    const kx_mp4_muxer& handle = *static_cast<kx_mp4_muxer*>(user);
    kx_mp4::CallLog::Keep(level, text);
    if (handle.log != nullptr)
        handle.log(handle.logUser, level, source, line, operation, text);
    else
        LogAtLinkTime(level, source, line, operation, text);
}

kx_mp4_file_options UsualOptions() {
    kx_mp4_file_options options{};
    options.struct_size = sizeof options;
    options.container = KX_MP4_CONTAINER_MP4;
    options.flags = kx_mp4::kUsualFlags;
    options.composition_offsets = 1;
    options.repair_flush_interval = 900;
    return options;
}

mp4_status_t Open(kx_mp4_muxer& handle, std::string_view path, const kx_mp4_file_options& options) {
    const auto container = static_cast<mp4_container>(options.container);
    if (options.output != nullptr)
        return handle.muxer.Create(path, container, options.flags, *options.output);
    if (options.buffer_bytes != 0) {
        auto buffer = std::make_unique<kx_mp4::BufferedOutput>(options.buffer_bytes);
        const mp4_status_t status =
            handle.muxer.Create(path, container, options.flags, buffer->Callbacks());
        // Not before: a file whose output has failed keeps its buffer until it is closed.
        if (status == MP4_STATUS_SUCCESS) handle.buffer = std::move(buffer);
        return status;
    }
    mp4_config_t config{};
    config.flags = options.flags;
    config.io_mode = MP4_IO_FILE;
    return handle.muxer.Create(path, container, config);
}

mp4_status_t Create(kx_mp4_muxer& handle, const char* path, const kx_mp4_file_options* given) {
    kx_mp4_file_options options = UsualOptions();
    if (path == nullptr || (given != nullptr && !kx_mp4::Take(given, options)) ||
        options.container < KX_MP4_CONTAINER_FROM_PATH ||
        options.container > KX_MP4_CONTAINER_QUICKTIME)
        return MP4_STATUS_INVALID_PARAMETER;
    if (handle.muxer.IsOpen()) return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
    // What can be refused is, before anything is opened.
    mp4_status_t status = handle.muxer.SetRepairFlushInterval(options.repair_flush_interval);
    if (status == MP4_STATUS_SUCCESS) status = Open(handle, path, options);
    if (status == MP4_STATUS_SUCCESS)
        status = handle.muxer.SetCompositionOffsets(options.composition_offsets != 0);
    if (status == MP4_STATUS_SUCCESS) status = handle.muxer.SetLiveIndex(options.live_index_ms);
    return status;
}

/// A shape or a colour that the stream is asked for.
template <class Record>
Record FromStream() {
    Record record{};
    record.struct_size = sizeof record;
    record.from_stream = 1;
    return record;
}

/// Hands a shape or a colour on, in the size that the library knows.
template <class Record>
mp4_status_t SetPresentation(kx_mp4_muxer& handle, const Record* given,
                             mp4_status_t (CMp4Muxer::*set)(const Record&)) {
    auto record = FromStream<Record>();
    if (!kx_mp4::Take(given, record)) return MP4_STATUS_INVALID_PARAMETER;
    record.struct_size = sizeof record;
    return (handle.muxer.*set)(record);
}

}  // namespace

kx_mp4_muxer::kx_mp4_muxer() {
    muxer.SetLogCallback(OnLog, this);
}

void kx_mp4_file_options_init(kx_mp4_file_options* options, size_t struct_size) {
    kx_mp4::InitRecord(UsualOptions(), options, struct_size);
}

void kx_mp4_video_track_init(kx_mp4_video_track* track, size_t struct_size) {
    kx_mp4::InitRecord(kx_mp4::UsualVideoTrack(), track, struct_size);
}

void kx_mp4_audio_track_init(kx_mp4_audio_track* track, size_t struct_size) {
    kx_mp4::InitRecord(kx_mp4::UsualAudioTrack(), track, struct_size);
}

void kx_mp4_caption_track_init(kx_mp4_caption_track* track, size_t struct_size) {
    kx_mp4::InitRecord(kx_mp4::UsualCaptionTrack(), track, struct_size);
}

void kx_mp4_timecode_track_init(kx_mp4_timecode_track* track, size_t struct_size) {
    kx_mp4::InitRecord(kx_mp4::UsualTimecodeTrack(), track, struct_size);
}

void kx_mp4_video_shape_init(mp4_video_shape_t* shape, size_t struct_size) {
    kx_mp4::InitRecord(FromStream<mp4_video_shape_t>(), shape, struct_size);
}

void kx_mp4_video_colour_init(mp4_video_colour_t* colour, size_t struct_size) {
    kx_mp4::InitRecord(FromStream<mp4_video_colour_t>(), colour, struct_size);
}

kx_mp4_muxer* kx_mp4_muxer_new() {
    return kx_mp4::NewHandle<kx_mp4_muxer>();
}

void kx_mp4_muxer_free(kx_mp4_muxer* muxer) {
    if (muxer == nullptr) return;
    kx_mp4_muxer_close(muxer);
    delete muxer;
}

size_t kx_mp4_muxer_last_error(const kx_mp4_muxer* muxer, char* text, size_t size) {
    return muxer != nullptr ? muxer->error.Get(text, size) : 0;
}

mp4_status_t kx_mp4_muxer_set_log(kx_mp4_muxer* muxer, kx_mp4_log_callback log, void* user) {
    return Call(muxer, __func__, [&](kx_mp4_muxer& handle) {
        handle.log = log;
        handle.logUser = user;
        return MP4_STATUS_SUCCESS;
    });
}

mp4_status_t kx_mp4_muxer_create(kx_mp4_muxer* muxer, const char* path,
                                 const kx_mp4_file_options* options) {
    return Call(muxer, __func__,
                [&](kx_mp4_muxer& handle) { return Create(handle, path, options); });
}

mp4_status_t kx_mp4_muxer_set_video_track(kx_mp4_muxer* muxer, const kx_mp4_video_track* track) {
    return Call(muxer, __func__,
                [&](kx_mp4_muxer& handle) { return kx_mp4::SetVideoTrack(handle.muxer, track); });
}

mp4_status_t kx_mp4_muxer_set_audio_track(kx_mp4_muxer* muxer, const kx_mp4_audio_track* track) {
    return Call(muxer, __func__,
                [&](kx_mp4_muxer& handle) { return kx_mp4::SetAudioTrack(handle.muxer, track); });
}

mp4_status_t kx_mp4_muxer_set_caption_track(kx_mp4_muxer* muxer,
                                            const kx_mp4_caption_track* track) {
    return Call(muxer, __func__,
                [&](kx_mp4_muxer& handle) { return kx_mp4::SetCaptionTrack(handle.muxer, track); });
}

mp4_status_t kx_mp4_muxer_set_timecode_track(kx_mp4_muxer* muxer,
                                             const kx_mp4_timecode_track* track) {
    return Call(muxer, __func__, [&](kx_mp4_muxer& handle) {
        return kx_mp4::SetTimecodeTrack(handle.muxer, track);
    });
}

mp4_status_t kx_mp4_muxer_set_metadata(kx_mp4_muxer* muxer, const char* key, int type,
                                       const void* data, uint32_t size, const char* key_namespace) {
    return Call(muxer, __func__, [&](kx_mp4_muxer& handle) {
        return kx_mp4::SetMetadata(handle.muxer, key, type, data, size, key_namespace);
    });
}

mp4_status_t kx_mp4_muxer_set_timeline(kx_mp4_muxer* muxer, int keep_start_times) {
    return Call(muxer, __func__, [&](kx_mp4_muxer& handle) {
        return handle.muxer.SetTimeline(keep_start_times != 0);
    });
}

mp4_status_t kx_mp4_muxer_set_audio_priming(kx_mp4_muxer* muxer, uint32_t samples) {
    return Call(muxer, __func__,
                [&](kx_mp4_muxer& handle) { return handle.muxer.SetAudioPriming(samples); });
}

mp4_status_t kx_mp4_muxer_set_video_shape(kx_mp4_muxer* muxer, const mp4_video_shape_t* shape) {
    return Call(muxer, __func__, [&](kx_mp4_muxer& handle) {
        return SetPresentation(handle, shape, &CMp4Muxer::SetVideoShape);
    });
}

mp4_status_t kx_mp4_muxer_set_video_colour(kx_mp4_muxer* muxer, const mp4_video_colour_t* colour) {
    return Call(muxer, __func__, [&](kx_mp4_muxer& handle) {
        return SetPresentation(handle, colour, &CMp4Muxer::SetVideoColour);
    });
}

mp4_status_t kx_mp4_muxer_set_strict_form(kx_mp4_muxer* muxer, int strict) {
    return Call(muxer, __func__,
                [&](kx_mp4_muxer& handle) { return handle.muxer.SetStrictForm(strict != 0); });
}

mp4_status_t kx_mp4_muxer_set_all_parameter_sets(kx_mp4_muxer* muxer, int all) {
    return Call(muxer, __func__,
                [&](kx_mp4_muxer& handle) { return handle.muxer.SetAllParameterSets(all != 0); });
}

mp4_status_t kx_mp4_muxer_add_parameter_set(kx_mp4_muxer* muxer, const uint8_t* nal,
                                            uint32_t size) {
    return Call(muxer, __func__,
                [&](kx_mp4_muxer& handle) { return handle.muxer.AddParameterSet(nal, size); });
}

mp4_status_t kx_mp4_muxer_write_video(kx_mp4_muxer* muxer, const uint8_t* frame, uint32_t size,
                                      uint64_t pts, uint64_t dts) {
    return Call(muxer, __func__, [&](kx_mp4_muxer& handle) {
        return handle.muxer.WriteVideoFrame(frame, size, pts, dts);
    });
}

mp4_status_t kx_mp4_muxer_write_audio(kx_mp4_muxer* muxer, const uint8_t* frame, uint32_t size,
                                      uint64_t timestamp) {
    return Call(muxer, __func__, [&](kx_mp4_muxer& handle) {
        return handle.muxer.WriteAudioFrame(frame, size, timestamp);
    });
}

mp4_status_t kx_mp4_muxer_write_captions(kx_mp4_muxer* muxer, const uint8_t* packet, uint32_t size,
                                         uint64_t timestamp) {
    return Call(muxer, __func__, [&](kx_mp4_muxer& handle) {
        return handle.muxer.WriteSubtitleFrame(packet, size, timestamp);
    });
}

mp4_status_t kx_mp4_muxer_write_timecode(kx_mp4_muxer* muxer, int32_t frames) {
    return Call(muxer, __func__,
                [&](kx_mp4_muxer& handle) { return handle.muxer.WriteTimeCode(frames); });
}

mp4_status_t kx_mp4_muxer_flush(kx_mp4_muxer* muxer) {
    return Call(muxer, __func__, [](kx_mp4_muxer& handle) { return handle.muxer.Flush(); });
}

mp4_status_t kx_mp4_muxer_close(kx_mp4_muxer* muxer) {
    return Call(muxer, __func__, [](kx_mp4_muxer& handle) { return handle.muxer.Close(); });
}

int kx_mp4_muxer_is_open(const kx_mp4_muxer* muxer) {
    return muxer != nullptr && muxer->muxer.IsOpen() ? 1 : 0;
}

int64_t kx_mp4_muxer_file_size(const kx_mp4_muxer* muxer) {
    return muxer != nullptr ? muxer->muxer.GetCurFileSize() : 0;
}

uint64_t kx_mp4_muxer_duration_ms(const kx_mp4_muxer* muxer) {
    return muxer != nullptr && muxer->muxer.IsOpen() ? muxer->muxer.GetDurationMS() : 0;
}

mp4_status_t kx_mp4_muxer_get_statistics(const kx_mp4_muxer* muxer, mp4_statistics_t* statistics) {
    return muxer != nullptr ? muxer->muxer.GetStatistics(statistics) : MP4_STATUS_INVALID_HANDLE;
}
