#include <array>
#include <ctime>
#include <string>

#include "Call.h"
#include "Record.h"
#include "Tracks.h"
#include "kx_mp4/kx_mp4_c.h"
#include "kx_mp4/recorder.h"

using kx_mp4::Call;

struct kx_mp4_recorder {
    CMp4Recorder recorder;
    kx_mp4::LastError error;
};

namespace {

constexpr size_t kLongestPath = 4096;

kx_mp4_recorder_options UsualOptions() {
    const kx_mp4::RecorderOptions usual;
    kx_mp4_recorder_options options{};
    options.struct_size = sizeof options;
    options.container = KX_MP4_CONTAINER_MP4;
    options.flags = kx_mp4::kUsualFlags;
    options.composition_offsets = 1;
    options.queue_bytes = usual.queue_bytes;
    options.wait_ms = usual.wait_ms;
    options.push_ms = usual.push_ms;
    options.reserve_bytes = usual.reserve_bytes;
    options.jump_ms = usual.jump_ms;
    return options;
}

std::string NameOf(const kx_mp4_recorder_options& given, uint64_t number, std::time_t due) {
    std::array<char, kLongestPath> path{};
    if (given.name(given.user, number, int64_t{due}, path.data(), path.size()) != 1) return "";
    path.back() = '\0';
    return path.data();
}

void TellSegment(const kx_mp4_recorder_options& given, const kx_mp4::RecorderSegment& made) {
    kx_mp4_segment segment{};
    segment.struct_size = sizeof segment;
    segment.number = made.number;
    segment.bytes = made.bytes;
    segment.due = int64_t{made.due};
    segment.path = made.path.c_str();
    segment.status = made.status;
    segment.reason = static_cast<int32_t>(made.reason);
    segment.video_samples = made.video.samples;
    segment.audio_samples = made.audio.samples;
    segment.caption_samples = made.captions.samples;
    given.on_segment(given.user, &segment);
}

/// The functions keep a copy of the record; what its texts point to is not theirs.
void SetCallbacks(const kx_mp4_recorder_options& given, kx_mp4::RecorderOptions& options) {
    if (given.name != nullptr) {
        options.name = [given](uint64_t number, std::time_t due) {
            return NameOf(given, number, due);
        };
    }
    if (given.request_key_frame != nullptr)
        options.request_key_frame = [given] { given.request_key_frame(given.user); };
    if (given.on_segment != nullptr) {
        options.on_segment = [given](const kx_mp4::RecorderSegment& segment) {
            TellSegment(given, segment);
        };
    }
    if (given.on_event != nullptr) {
        options.on_event = [given](const kx_mp4::RecorderEvent& event) {
            given.on_event(given.user, static_cast<int>(event.kind), event.status, event.path,
                           event.text);
        };
    }
}

mp4_status_t Start(CMp4Recorder& recorder, const kx_mp4_recorder_options* record) {
    kx_mp4_recorder_options given = UsualOptions();
    if (!kx_mp4::Take(record, given) || given.container < KX_MP4_CONTAINER_FROM_PATH ||
        given.container > KX_MP4_CONTAINER_QUICKTIME)
        return MP4_STATUS_INVALID_PARAMETER;
    kx_mp4::RecorderOptions options;
    if (given.pattern != nullptr) options.pattern = given.pattern;
    options.container = static_cast<mp4_container>(given.container);
    options.flags = given.flags;
    options.composition_offsets = given.composition_offsets != 0;
    options.live_index_ms = given.live_index_ms;
    options.queue_bytes = static_cast<size_t>(given.queue_bytes);
    options.on_queue_full =
        given.wait_when_full != 0 ? kx_mp4::QueueFull::kWait : kx_mp4::QueueFull::kDrop;
    options.wait_ms = given.wait_ms;
    options.segment_ms = given.segment_ms;
    options.segment_bytes = given.segment_bytes;
    options.segment_wall_clock_s = given.segment_wall_clock_s;
    options.push_ms = given.push_ms;
    options.reserve_bytes = given.reserve_bytes;
    options.on_disk_full =
        given.delete_oldest != 0 ? kx_mp4::DiskFull::kDeleteOldest : kx_mp4::DiskFull::kStop;
    options.jump_ms = given.jump_ms;
    SetCallbacks(given, options);
    return recorder.Start(options);
}

kx_mp4_recorder_statistics FiguresOf(const kx_mp4::RecorderStatistics& made) {
    kx_mp4_recorder_statistics full{};
    full.queue_capacity = made.queue_capacity;
    full.queue_bytes = made.queue_bytes;
    full.queue_peak = made.queue_peak;
    full.frames_taken = made.frames_taken;
    full.frames_written = made.frames_written;
    full.bytes_written = made.bytes_written;
    full.drops_queue_full = made.drops.queue_full;
    full.drops_dependent = made.drops.dependent;
    full.drops_before_key = made.drops.before_key;
    full.drops_paused = made.drops.paused;
    full.drops_late_track = made.drops.late_track;
    full.drops_write_error = made.drops.write_error;
    full.drops_refused = made.drops.refused;
    full.drops_stopped = made.drops.stopped;
    full.segments_begun = made.segments_begun;
    full.segments_finished = made.segments_finished;
    full.segments_deleted = made.segments_deleted;
    full.longest_write_us = made.longest_write_us;
    full.longest_push_us = made.longest_push_us;
    full.unpushed_us = made.unpushed_us;
    full.clock_jumps = made.clock_jumps;
    full.clock_wraps = made.clock_wraps;
    full.late_frames = made.late_frames;
    return full;
}

}  // namespace

void kx_mp4_recorder_options_init(kx_mp4_recorder_options* options, size_t struct_size) {
    kx_mp4::InitRecord(UsualOptions(), options, struct_size);
}

kx_mp4_recorder* kx_mp4_recorder_new() {
    return kx_mp4::NewHandle<kx_mp4_recorder>();
}

void kx_mp4_recorder_free(kx_mp4_recorder* recorder) {
    delete recorder;
}

size_t kx_mp4_recorder_last_error(const kx_mp4_recorder* recorder, char* text, size_t size) {
    return recorder != nullptr ? recorder->error.Get(text, size) : 0;
}

mp4_status_t kx_mp4_recorder_start(kx_mp4_recorder* recorder,
                                   const kx_mp4_recorder_options* options) {
    return Call(recorder, __func__,
                [&](kx_mp4_recorder& handle) { return Start(handle.recorder, options); });
}

mp4_status_t kx_mp4_recorder_stop(kx_mp4_recorder* recorder, uint32_t limit_ms) {
    return Call(recorder, __func__, [&](kx_mp4_recorder& handle) {
        const kx_mp4::RecorderReport report = handle.recorder.Stop(limit_ms);
        if (report.status != MP4_STATUS_SUCCESS) return report.status;
        return report.drained ? MP4_STATUS_SUCCESS : MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
    });
}

mp4_status_t kx_mp4_recorder_set_video_track(kx_mp4_recorder* recorder,
                                             const kx_mp4_video_track* track) {
    return Call(recorder, __func__, [&](kx_mp4_recorder& handle) {
        return kx_mp4::SetVideoTrack(handle.recorder, track);
    });
}

mp4_status_t kx_mp4_recorder_set_audio_track(kx_mp4_recorder* recorder,
                                             const kx_mp4_audio_track* track) {
    return Call(recorder, __func__, [&](kx_mp4_recorder& handle) {
        return kx_mp4::SetAudioTrack(handle.recorder, track);
    });
}

mp4_status_t kx_mp4_recorder_set_caption_track(kx_mp4_recorder* recorder,
                                               const kx_mp4_caption_track* track) {
    return Call(recorder, __func__, [&](kx_mp4_recorder& handle) {
        return kx_mp4::SetCaptionTrack(handle.recorder, track);
    });
}

mp4_status_t kx_mp4_recorder_set_timecode_track(kx_mp4_recorder* recorder,
                                                const kx_mp4_timecode_track* track) {
    return Call(recorder, __func__, [&](kx_mp4_recorder& handle) {
        return kx_mp4::SetTimecodeTrack(handle.recorder, track);
    });
}

mp4_status_t kx_mp4_recorder_set_metadata(kx_mp4_recorder* recorder, const char* key, int type,
                                          const void* data, uint32_t size,
                                          const char* key_namespace) {
    return Call(recorder, __func__, [&](kx_mp4_recorder& handle) {
        return kx_mp4::SetMetadata(handle.recorder, key, type, data, size, key_namespace);
    });
}

mp4_status_t kx_mp4_recorder_write_video(kx_mp4_recorder* recorder, const uint8_t* frame,
                                         uint32_t size, uint64_t pts, uint64_t dts) {
    return Call(recorder, __func__, [&](kx_mp4_recorder& handle) {
        return handle.recorder.WriteVideoFrame(frame, size, pts, dts);
    });
}

mp4_status_t kx_mp4_recorder_write_audio(kx_mp4_recorder* recorder, const uint8_t* frame,
                                         uint32_t size, uint64_t timestamp) {
    return Call(recorder, __func__, [&](kx_mp4_recorder& handle) {
        return handle.recorder.WriteAudioFrame(frame, size, timestamp);
    });
}

mp4_status_t kx_mp4_recorder_write_captions(kx_mp4_recorder* recorder, const uint8_t* packet,
                                            uint32_t size, uint64_t timestamp) {
    return Call(recorder, __func__, [&](kx_mp4_recorder& handle) {
        return handle.recorder.WriteSubtitleFrame(packet, size, timestamp);
    });
}

mp4_status_t kx_mp4_recorder_write_timecode(kx_mp4_recorder* recorder, int32_t frames) {
    return Call(recorder, __func__,
                [&](kx_mp4_recorder& handle) { return handle.recorder.WriteTimeCode(frames); });
}

mp4_status_t kx_mp4_recorder_cut(kx_mp4_recorder* recorder) {
    return Call(recorder, __func__, [](kx_mp4_recorder& handle) { return handle.recorder.Cut(); });
}

mp4_status_t kx_mp4_recorder_pause(kx_mp4_recorder* recorder) {
    return Call(recorder, __func__,
                [](kx_mp4_recorder& handle) { return handle.recorder.Pause(); });
}

mp4_status_t kx_mp4_recorder_resume(kx_mp4_recorder* recorder) {
    return Call(recorder, __func__,
                [](kx_mp4_recorder& handle) { return handle.recorder.Resume(); });
}

mp4_status_t kx_mp4_recorder_get_statistics(const kx_mp4_recorder* recorder,
                                            kx_mp4_recorder_statistics* statistics) {
    if (recorder == nullptr) return MP4_STATUS_INVALID_HANDLE;
    if (statistics == nullptr || !kx_mp4::IsRecordSize(statistics->struct_size))
        return MP4_STATUS_INVALID_PARAMETER;
    kx_mp4::Give(FiguresOf(recorder->recorder.GetStatistics()), statistics);
    return MP4_STATUS_SUCCESS;
}
