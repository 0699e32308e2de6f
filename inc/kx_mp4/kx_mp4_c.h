/// @file
/// The interface for C and for every language that can call C. C99 and C++.
///
/// Conventions
/// - Handles are opaque. `..._new` makes one (null without memory), `..._free` ends it and takes
///   null. Everywhere else a null handle answers #MP4_STATUS_INVALID_HANDLE, and queries 0.
/// - Operations answer with the statuses of status.h. `..._last_error` tells in words what the last
///   operation of the handle that failed has said. No exception leaves this interface.
/// - Records begin with `struct_size`. For those that are given, the init function sets it, and for
///   the rest what an application expects: call it with `sizeof`, then change what is to be
///   otherwise. A field that this library does not know has to be 0, and a size that ends within a
///   pointer is refused. For those that are filled in, the caller sets it. So programs run with any
///   later library of the same major version.
/// - Paths and texts are UTF-8; no function looks at the locale.
/// - Everything is copied during the call, with one exception: what a callback's `user` points to
///   must live until the callback is not called any more.
/// - Callbacks get `user` first. They run on the thread that is inside the operation, unless it is
///   said otherwise, and must not call the same handle.
/// - Threads: any two handles are independent. Of one muxer, the `write` operations and
///   `close` may run at the same time, and queries, statistics and the last error at any
///   time; the caller keeps other operations apart. A recorder's operations may all run at
///   any time. `..._free` is the last call.
/// - Flags and answers of type int are 1 for yes and 0 for no.
///
/// @code
/// kx_mp4_muxer* muxer = kx_mp4_muxer_new();
/// kx_mp4_muxer_create(muxer, "clip.mp4", NULL);
/// kx_mp4_video_track video;
/// kx_mp4_video_track_init(&video, sizeof video);
/// video.timescale = 90000; video.width = 1920; video.height = 1080;
/// kx_mp4_muxer_set_video_track(muxer, &video);
/// kx_mp4_muxer_write_video(muxer, frame, size, pts, dts);
/// kx_mp4_muxer_close(muxer);
/// kx_mp4_muxer_free(muxer);
/// @endcode
#ifndef KX_MP4_KX_MP4_C_H
#define KX_MP4_KX_MP4_C_H

#include <stddef.h>
#include <stdint.h>

#include "kx_mp4/export.h"
#include "kx_mp4/io_callbacks.h"
#include "kx_mp4/presentation.h"
#include "kx_mp4/statistics.h"
#include "kx_mp4/status.h"

#ifdef __cplusplus
extern "C" {
#endif

/// The kind of file.
enum {
    KX_MP4_CONTAINER_FROM_PATH = 0,  ///< QuickTime when "mov" is anywhere in the path.
    KX_MP4_CONTAINER_MP4 = 1,        ///< ISO base media file.
    KX_MP4_CONTAINER_QUICKTIME = 2   ///< QuickTime movie.
};

/// Bits of `flags`.
enum {
    KX_MP4_FLAG_64BIT_TIME = 1,   ///< 64-bit time fields from the start.
    KX_MP4_FLAG_64BIT_SIZE = 2,   ///< 64-bit sizes: recordings may pass 4 GiB.
    KX_MP4_FLAG_REPAIR_INFO = 16  ///< A repair info file beside the recording until it is finished.
};

/// Video codecs.
enum {
    KX_MP4_VIDEO_H264 = 0,   ///< ITU-T H.264.
    KX_MP4_VIDEO_HEVC = 1,   ///< ITU-T H.265.
    KX_MP4_VIDEO_PRORES = 2  ///< ProRes, all flavours.
};
/// ProRes flavours.
enum {
    KX_MP4_PRORES_422_PROXY = 0,  ///< apco
    KX_MP4_PRORES_422_LT = 1,     ///< apcs
    KX_MP4_PRORES_422 = 2,        ///< apcn
    KX_MP4_PRORES_422_HQ = 3,     ///< apch
    KX_MP4_PRORES_4444 = 4,       ///< ap4h
    KX_MP4_PRORES_4444_XQ = 5     ///< ap4x
};
/// Audio codecs.
enum {
    KX_MP4_AUDIO_AAC = 1,  ///< Raw AAC frames.
    KX_MP4_AUDIO_ADTS = 2  ///< AAC frames behind ADTS headers.
};
/// Caption codecs.
enum {
    KX_MP4_CAPTIONS_CEA608 = 1,  ///< Byte pairs.
    KX_MP4_CAPTIONS_CEA708 = 2   ///< Caption distribution packets.
};
/// How the bytes of a metadata item are read.
enum {
    KX_MP4_METADATA_RAW = 0,      ///< As they are.
    KX_MP4_METADATA_TEXT = 1,     ///< A C string in UTF-8.
    KX_MP4_METADATA_INTEGER = 21  ///< A native 32-bit integer.
};
/// How much a log line matters.
enum {
    KX_MP4_LOG_INFO = 0,     ///< What goes on.
    KX_MP4_LOG_WARNING = 1,  ///< Something is odd.
    KX_MP4_LOG_ERROR = 2     ///< Something is refused or has failed.
};

/// Takes a log line: where in the library it comes from, which operation logs, the text.
typedef void (*kx_mp4_log_callback)(void* user, int level, const char* source, int line,
                                    const char* operation, const char* text);

/// The video track.
typedef struct kx_mp4_video_track {
    size_t struct_size;       ///< Set by the init function.
    uint64_t frame_duration;  ///< Nominal, in ticks; 0 when not known.
    uint32_t timescale;       ///< Ticks per second; 90000 by default.
    int32_t codec;            ///< KX_MP4_VIDEO_...; H.264 by default.
    uint16_t width;           ///< Pixels.
    uint16_t height;          ///< Pixels.
    int32_t prores_format;    ///< KX_MP4_PRORES_..., for ProRes.
    // Parameter sets: single NAL units without start code. Null: they are taken from the stream.
    const uint8_t* vps;  ///< Video parameter set, for HEVC.
    size_t vps_size;     ///< Bytes.
    const uint8_t* sps;  ///< Sequence parameter set.
    size_t sps_size;     ///< Bytes.
    const uint8_t* pps;  ///< Picture parameter set.
    size_t pps_size;     ///< Bytes.
    /// An `avcC` or `hvcC` record without box header. With it frames have lengths in front of their
    /// NAL units instead of start codes, and single parameter sets are not looked at.
    const uint8_t* configuration_record;
    size_t configuration_record_size;  ///< Bytes.
} kx_mp4_video_track;

/// The audio track.
typedef struct kx_mp4_audio_track {
    size_t struct_size;       ///< Set by the init function.
    uint64_t frame_duration;  ///< Nominal, in ticks; 1024 by default.
    uint32_t timescale;       ///< Ticks per second; 0, the default, is the sample rate.
    int32_t codec;            ///< KX_MP4_AUDIO_...; raw AAC by default.
    uint32_t sample_rate;     ///< Hz, up to 96000; 48000 by default.
    uint16_t channels;        ///< AAC channel configuration; 2 by default.
    uint16_t object_type;     ///< MPEG-4 audio object type; 2 (AAC LC) by default.
} kx_mp4_audio_track;

/// The caption track.
typedef struct kx_mp4_caption_track {
    size_t struct_size;  ///< Set by the init function.
    uint32_t timescale;  ///< Ticks per second; 1000 by default.
    int32_t codec;       ///< KX_MP4_CAPTIONS_...; CEA-608 by default.
} kx_mp4_caption_track;

/// The timecode track.
typedef struct kx_mp4_timecode_track {
    size_t struct_size;       ///< Set by the init function.
    uint64_t frame_duration;  ///< Ticks of one timecode frame.
    uint32_t timescale;       ///< Ticks per second; 90000 by default.
    int32_t flags;            ///< QuickTime timecode flags: 1 drop frame, 2 24-hour maximum ...
    uint8_t frame_rate;       ///< Frames per second that the timecode counts (30 for 29.97).
} kx_mp4_timecode_track;

/// Sets `struct_size` and what an application expects.
KX_MP4_EXPORT void kx_mp4_video_track_init(kx_mp4_video_track* track, size_t struct_size);
/// Sets `struct_size` and what an application expects.
KX_MP4_EXPORT void kx_mp4_audio_track_init(kx_mp4_audio_track* track, size_t struct_size);
/// Sets `struct_size` and what an application expects.
KX_MP4_EXPORT void kx_mp4_caption_track_init(kx_mp4_caption_track* track, size_t struct_size);
/// Sets `struct_size` and what an application expects.
KX_MP4_EXPORT void kx_mp4_timecode_track_init(kx_mp4_timecode_track* track, size_t struct_size);

/// How a muxer records a file.
typedef struct kx_mp4_file_options {
    size_t struct_size;  ///< Set by the init function.
    int32_t container;   ///< KX_MP4_CONTAINER_...; MP4 by default.
    uint32_t flags;      ///< KX_MP4_FLAG_...; 64-bit sizes and a repair info file by default.
    /// Whether presentation times reach the file, as B-frames need; 1 by default.
    int32_t composition_offsets;
    uint32_t live_index_ms;  ///< Milliseconds between two live indexes; 0, the default, is none.
    /// Video frames between two pushes of the repair info file to the device; 900 by default.
    uint32_t repair_flush_interval;
    /// Bytes of the buffer before the file. 0, the default: a frame is in the hands of the
    /// operating system when its call returns.
    uint32_t buffer_bytes;
    const mp4_io_callbacks_t* output;  ///< An output of the caller's; null, the default, is a file.
} kx_mp4_file_options;

/// Sets `struct_size` and what an application expects.
KX_MP4_EXPORT void kx_mp4_file_options_init(kx_mp4_file_options* options, size_t struct_size);

/// Records one file at a time.
typedef struct kx_mp4_muxer kx_mp4_muxer;

/// @return Null without memory.
KX_MP4_EXPORT kx_mp4_muxer* kx_mp4_muxer_new(void);
/// Finishes a file that is still open, then ends the handle. Call kx_mp4_muxer_close before to know
/// whether the file is whole.
KX_MP4_EXPORT void kx_mp4_muxer_free(kx_mp4_muxer* muxer);
/// What the last operation that failed says, "OPERATION: STATUS: why".
///
/// @param muxer  The handle.
/// @param text   Gets at most `size` bytes with the final 0; may be null when `size` is 0.
/// @param size   Bytes of `text`.
/// @return The length of the whole text without the final 0; 0 when nothing has failed.
KX_MP4_EXPORT size_t kx_mp4_muxer_last_error(const kx_mp4_muxer* muxer, char* text, size_t size);
/// Sends the handle's log lines to `log`, or with null to where the library logs otherwise. Not
/// while another operation runs.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_log(kx_mp4_muxer* muxer, kx_mp4_log_callback log,
                                                void* user);

/// Opens a file; an existing one is replaced. Nothing is written before the first frame, or with a
/// repair info file before the first track.
/// @param muxer    The handle.
/// @param path     In UTF-8, copied.
/// @param options  Null for what an application expects.
/// @return As CMp4Muxer::Create.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_create(kx_mp4_muxer* muxer, const char* path,
                                               const kx_mp4_file_options* options);
/// As CMp4Muxer::SetVideoTrack; #MP4_STATUS_INVALID_PARAMETER also for a parameter set without
/// bytes or over 32767 bytes.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_video_track(kx_mp4_muxer* muxer,
                                                        const kx_mp4_video_track* track);
/// As CMp4Muxer::SetAudioTrack; #MP4_STATUS_INVALID_PARAMETER also for a sample rate that the file
/// cannot tell.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_audio_track(kx_mp4_muxer* muxer,
                                                        const kx_mp4_audio_track* track);
/// As CMp4Muxer::SetSubtitleTrack.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_caption_track(kx_mp4_muxer* muxer,
                                                          const kx_mp4_caption_track* track);
/// As CMp4Muxer::SetTCMDTrack; #MP4_STATUS_INVALID_PARAMETER also for a timescale of 0, with which
/// no reader can tell the timecode's times.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_timecode_track(kx_mp4_muxer* muxer,
                                                           const kx_mp4_timecode_track* track);
/// As CMp4Muxer::SetMetadata.
/// @param muxer          The handle.
/// @param key            A C string: the name, or the tag of a well-known item.
/// @param type           KX_MP4_METADATA_...
/// @param data           A C string for a text, else `size` bytes.
/// @param size           Bytes of `data`; not used for texts.
/// @param key_namespace  Null is "mdta".
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_metadata(kx_mp4_muxer* muxer, const char* key, int type,
                                                     const void* data, uint32_t size,
                                                     const char* key_namespace);

/// As CMp4Muxer::SetTimeline, before the first frame.
/// @param muxer             The handle.
/// @param keep_start_times  1: the times at which the tracks begin are kept; 0, as after
///                          kx_mp4_muxer_create: each begins at its own first sample.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_timeline(kx_mp4_muxer* muxer, int keep_start_times);
/// As CMp4Muxer::SetAudioPriming, before the first frame.
/// @param muxer    The handle.
/// @param samples  At the sample rate of the audio track.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_audio_priming(kx_mp4_muxer* muxer, uint32_t samples);
/// Sets `struct_size`, and `from_stream` to 1: what is not changed is taken from the stream.
KX_MP4_EXPORT void kx_mp4_video_shape_init(mp4_video_shape_t* shape, size_t struct_size);
/// Sets `struct_size`, and `from_stream` to 1: what is not changed is taken from the stream.
KX_MP4_EXPORT void kx_mp4_video_colour_init(mp4_video_colour_t* colour, size_t struct_size);
/// As CMp4Muxer::SetVideoShape, before the first frame.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_video_shape(kx_mp4_muxer* muxer,
                                                        const mp4_video_shape_t* shape);
/// As CMp4Muxer::SetVideoColour, before the first frame.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_video_colour(kx_mp4_muxer* muxer,
                                                         const mp4_video_colour_t* colour);
/// As CMp4Muxer::SetStrictForm; not 0 turns it on.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_strict_form(kx_mp4_muxer* muxer, int strict);
/// As CMp4Muxer::SetAllParameterSets, before the track; not 0 turns it on.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_set_all_parameter_sets(kx_mp4_muxer* muxer, int all);
/// As CMp4Muxer::AddParameterSet.
/// @param muxer  The handle.
/// @param nal    One NAL unit without start code or length.
/// @param size   Bytes; at most 32767.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_add_parameter_set(kx_mp4_muxer* muxer, const uint8_t* nal,
                                                          uint32_t size);

/// As CMp4Muxer::WriteVideoFrame. Times are in ticks.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_write_video(kx_mp4_muxer* muxer, const uint8_t* frame,
                                                    uint32_t size, uint64_t pts, uint64_t dts);
/// As CMp4Muxer::WriteAudioFrame.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_write_audio(kx_mp4_muxer* muxer, const uint8_t* frame,
                                                    uint32_t size, uint64_t timestamp);
/// As CMp4Muxer::WriteSubtitleFrame.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_write_captions(kx_mp4_muxer* muxer, const uint8_t* packet,
                                                       uint32_t size, uint64_t timestamp);
/// As CMp4Muxer::WriteTimeCode.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_write_timecode(kx_mp4_muxer* muxer, int32_t frames);
/// Pushes what was written to the storage device.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_flush(kx_mp4_muxer* muxer);
/// Finishes the file. Only #MP4_STATUS_SUCCESS means a file that plays; a second call does nothing.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_close(kx_mp4_muxer* muxer);

/// Whether a file is open and its output has not failed.
KX_MP4_EXPORT int kx_mp4_muxer_is_open(const kx_mp4_muxer* muxer);
/// Bytes so far; after kx_mp4_muxer_close of the finished file.
KX_MP4_EXPORT int64_t kx_mp4_muxer_file_size(const kx_mp4_muxer* muxer);
/// The longer of the video and the audio duration so far in milliseconds; 0 without a file.
KX_MP4_EXPORT uint64_t kx_mp4_muxer_duration_ms(const kx_mp4_muxer* muxer);
/// As CMp4Muxer::GetStatistics.
/// @param muxer       The handle.
/// @param statistics  The caller sets `struct_size`.
KX_MP4_EXPORT mp4_status_t kx_mp4_muxer_get_statistics(const kx_mp4_muxer* muxer,
                                                       mp4_statistics_t* statistics);

/// What became of a recording.
enum {
    KX_MP4_REPAIR_WHOLE = 0,  ///< Everything that was recorded is in the repaired file.
    KX_MP4_REPAIR_LOSS = 1,   ///< Repaired, but something is missing or doubtful.
    KX_MP4_REPAIR_FAILED = 2  ///< Not repaired, nothing changed.
};

/// How to repair.
typedef struct kx_mp4_repair_options {
    size_t struct_size;       ///< Set by the init function.
    const char* info_path;    ///< The repair info file; null: the recording's path and ".info".
    const char* output_path;  ///< The repaired file; null: ".repaired" before the extension.
    int32_t overwrite;        ///< Replace a file that has the output's name; 0 by default.
    int32_t in_place;         ///< Repair the recording itself, without a copy; 0 by default.
    int32_t force;            ///< Repair in place although more is unexplained; 0 by default.
    int32_t dry_run;          ///< Only check and report; 0 by default.
    int32_t keep_info;        ///< Keep the repair info file after a repair in place; 0 by default.
    int32_t composition_offsets;  ///< 1 or 0; -1, the default, finds out.
    /// Told now and then of the bytes that are done of a step; null by default. 0 ends the repair.
    int (*progress)(void* user, int step, uint64_t done, uint64_t total);
    void* user;  ///< For `progress`.
} kx_mp4_repair_options;

/// Counts of one kind of track.
typedef struct kx_mp4_repair_track {
    uint64_t frames_kept;           ///< Samples in the index.
    uint64_t bytes_kept;            ///< Bytes of those samples.
    uint64_t frames_dropped;        ///< Records after the point where the repair ended.
    uint64_t frames_without_track;  ///< Audio frames that never had a track.
    uint64_t frames_doubtful;       ///< Kept samples of which something contradicts the record.
} kx_mp4_repair_track;

/// What was found and done.
typedef struct kx_mp4_repair_report {
    size_t struct_size;                ///< Set by the caller.
    int32_t outcome;                   ///< KX_MP4_REPAIR_...
    int32_t quicktime;                 ///< Whether the recording is a QuickTime movie.
    char reason[1024];                 ///< Why the outcome is not KX_MP4_REPAIR_WHOLE; else empty.
    char output_path[4096];            ///< The repaired file; empty when none was written.
    uint64_t reason_time_ms;           ///< Where the loss or the doubt begins.
    uint64_t records;                  ///< Records of the repair info file that were kept.
    kx_mp4_repair_track video;         ///< Video track.
    kx_mp4_repair_track audio;         ///< Audio track.
    kx_mp4_repair_track captions;      ///< Caption track.
    kx_mp4_repair_track timecode;      ///< Timecode track.
    uint64_t media_bytes_kept;         ///< Bytes of all kept samples.
    uint64_t media_bytes_unexplained;  ///< Bytes behind them that no sample has.
    uint64_t output_bytes;             ///< Size of the repaired file, also of a dry run.
    int32_t composition_offsets;       ///< Whether the index has composition offsets.
} kx_mp4_repair_report;

/// Sets `struct_size` and what an application expects.
KX_MP4_EXPORT void kx_mp4_repair_options_init(kx_mp4_repair_options* options, size_t struct_size);
/// Repairs a recording that was cut off. Calls may run at the same time.
/// @param path     The recording, in UTF-8 or the file system's own bytes.
/// @param options  Null for what an application expects.
/// @param report   May be null.
/// @return KX_MP4_REPAIR_...
KX_MP4_EXPORT int kx_mp4_repair(const char* path, const kx_mp4_repair_options* options,
                                kx_mp4_repair_report* report);

/// A finished segment of a recorder.
typedef struct kx_mp4_segment {
    size_t struct_size;      ///< Bytes that are filled in.
    uint64_t number;         ///< Counted from 0.
    uint64_t bytes;          ///< Of the file.
    int64_t due;             ///< The time in the file's name, seconds since 1970.
    const char* path;        ///< Lives during the call.
    mp4_status_t status;     ///< #MP4_STATUS_SUCCESS for a finished file, otherwise the failure.
    int32_t reason;          ///< Why it began: 0 start, 1 time, 2 size, 3 wall clock, 4 command, 5
                             ///< parameter sets, 6 track, 7 push failed, 8 write failed.
    uint64_t video_samples;  ///< Pictures in it.
    uint64_t audio_samples;  ///< AAC frames in it.
    uint64_t caption_samples;  ///< Caption packets in it.
} kx_mp4_segment;

/// What kx_mp4_recorder_options::on_event tells of.
enum {
    KX_MP4_EVENT_ERROR = 0,   ///< Something failed.
    KX_MP4_EVENT_FULL = 1,    ///< The disk is full: no more frames are taken.
    KX_MP4_EVENT_DELETED = 2  ///< A finished segment was deleted to make room.
};

/// How a recorder records. Callbacks run on threads of the recorder, one at a time, and may call
/// the recorder, but not its stop and free.
typedef struct kx_mp4_recorder_options {
    size_t struct_size;   ///< Set by the init function.
    const char* pattern;  ///< Paths: strftime conversions, and `%%i` or `%%04i` for the number.
    int32_t container;    ///< KX_MP4_CONTAINER_...; MP4 by default.
    uint32_t flags;       ///< KX_MP4_FLAG_...; 64-bit sizes and a repair info file by default.
    int32_t composition_offsets;    ///< As kx_mp4_file_options::composition_offsets.
    uint32_t live_index_ms;         ///< As kx_mp4_file_options::live_index_ms.
    uint64_t queue_bytes;           ///< Of the queue; 8 MiB by default.
    uint32_t wait_ms;               ///< Longest wait of a frame call for room in the queue.
    int32_t wait_when_full;         ///< Wait before a frame is dropped; 0 by default.
    uint64_t segment_ms;            ///< A new file after so many milliseconds; 0 is no limit.
    uint64_t segment_bytes;         ///< A new file after so many bytes; 0 is no limit.
    uint32_t segment_wall_clock_s;  ///< A new file at whole multiples since midnight; 0 is never.
    uint32_t push_ms;               ///< From one push to the device to the next; 1000 by default.
    uint64_t reserve_bytes;         ///< Room is taken on the disk in steps of it.
    int32_t delete_oldest;          ///< Delete the oldest finished segments for room; 0 by default.
    uint32_t jump_ms;               ///< From this on a difference of times is a jump of the clock.
    void* user;                     ///< First argument of the callbacks; each of them may be null.
    /// Names a file instead of the pattern: writes a path with its final 0 into `path`, of `size`
    /// bytes, and answers 1. Runs on the thread that opens the file.
    int (*name)(void* user, uint64_t number, int64_t due, char* path, size_t size);
    void (*request_key_frame)(void* user);  ///< Asks the encoder for a key frame.
    void (*on_segment)(void* user, const kx_mp4_segment* segment);  ///< A file is finished.
    /// Tells of failures: KX_MP4_EVENT_..., the file, one sentence.
    void (*on_event)(void* user, int event, mp4_status_t status, const char* path,
                     const char* text);
} kx_mp4_recorder_options;

/// Figures of a recorder, as kx_mp4::RecorderStatistics.
typedef struct kx_mp4_recorder_statistics {
    size_t struct_size;          ///< Set by the caller.
    uint64_t queue_capacity;     ///< Bytes.
    uint64_t queue_bytes;        ///< In the queue now.
    uint64_t queue_peak;         ///< The most there ever were.
    uint64_t frames_taken;       ///< Into the queue.
    uint64_t frames_written;     ///< Handed to a file.
    uint64_t bytes_written;      ///< To files, index included.
    uint64_t drops_queue_full;   ///< Frames without room in the queue.
    uint64_t drops_dependent;    ///< Pictures that need one that was dropped.
    uint64_t drops_before_key;   ///< Pictures before one that a file can begin with.
    uint64_t drops_paused;       ///< Given while paused.
    uint64_t drops_late_track;   ///< Of a track that was declared late.
    uint64_t drops_write_error;  ///< While no file could be written.
    uint64_t drops_refused;      ///< By the muxer.
    uint64_t drops_stopped;      ///< Still in the queue when the limit of stop passed.
    uint64_t segments_begun;     ///< Files that got frames.
    uint64_t segments_finished;  ///< Of them, with an index.
    uint64_t segments_deleted;   ///< Of them, to make room.
    uint64_t longest_write_us;   ///< Microseconds of one write to a file.
    uint64_t longest_push_us;    ///< Microseconds of one push to the device.
    uint64_t unpushed_us;        ///< Age of the oldest frame that a power cut could take.
    uint64_t clock_jumps;        ///< Jumps of the caller's clock that were taken out.
    uint64_t clock_wraps;        ///< Times that began again at 0.
    uint64_t late_frames;        ///< Sound that came after the file of its time was finished.
} kx_mp4_recorder_statistics;

/// Sets `struct_size` and what an application expects.
KX_MP4_EXPORT void kx_mp4_recorder_options_init(kx_mp4_recorder_options* options,
                                                size_t struct_size);

/// Records through a queue and threads of its own, in segments: no frame call waits for a device.
typedef struct kx_mp4_recorder kx_mp4_recorder;

/// @return Null without memory.
KX_MP4_EXPORT kx_mp4_recorder* kx_mp4_recorder_new(void);
/// Stops, waits for it without a limit, then ends the handle.
KX_MP4_EXPORT void kx_mp4_recorder_free(kx_mp4_recorder* recorder);
/// As kx_mp4_muxer_last_error.
KX_MP4_EXPORT size_t kx_mp4_recorder_last_error(const kx_mp4_recorder* recorder, char* text,
                                                size_t size);
/// As CMp4Recorder::Start.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_start(kx_mp4_recorder* recorder,
                                                 const kx_mp4_recorder_options* options);
/// As CMp4Recorder::Stop; answers with the first failure of the recording, and with
/// #MP4_STATUS_DEVICE_OR_RESOURCE_BUSY when not everything in the queue was written in time.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_stop(kx_mp4_recorder* recorder, uint32_t limit_ms);
/// As kx_mp4_muxer_set_video_track; lengths of four bytes only with a configuration record.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_set_video_track(kx_mp4_recorder* recorder,
                                                           const kx_mp4_video_track* track);
/// As kx_mp4_muxer_set_audio_track.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_set_audio_track(kx_mp4_recorder* recorder,
                                                           const kx_mp4_audio_track* track);
/// As kx_mp4_muxer_set_caption_track.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_set_caption_track(kx_mp4_recorder* recorder,
                                                             const kx_mp4_caption_track* track);
/// As kx_mp4_muxer_set_timecode_track.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_set_timecode_track(kx_mp4_recorder* recorder,
                                                              const kx_mp4_timecode_track* track);
/// As kx_mp4_muxer_set_metadata.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_set_metadata(kx_mp4_recorder* recorder, const char* key,
                                                        int type, const void* data, uint32_t size,
                                                        const char* key_namespace);
/// As CMp4Recorder::WriteVideoFrame.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_write_video(kx_mp4_recorder* recorder,
                                                       const uint8_t* frame, uint32_t size,
                                                       uint64_t pts, uint64_t dts);
/// As CMp4Recorder::WriteAudioFrame.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_write_audio(kx_mp4_recorder* recorder,
                                                       const uint8_t* frame, uint32_t size,
                                                       uint64_t timestamp);
/// As CMp4Recorder::WriteSubtitleFrame.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_write_captions(kx_mp4_recorder* recorder,
                                                          const uint8_t* packet, uint32_t size,
                                                          uint64_t timestamp);
/// As CMp4Recorder::WriteTimeCode.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_write_timecode(kx_mp4_recorder* recorder,
                                                          int32_t frames);
/// Begins a new segment at the next key frame that can be decoded alone.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_cut(kx_mp4_recorder* recorder);
/// Frames are counted and forgotten until kx_mp4_recorder_resume.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_pause(kx_mp4_recorder* recorder);
/// Goes on at the next such key frame.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_resume(kx_mp4_recorder* recorder);
/// Figures of this moment; waits for no I/O.
KX_MP4_EXPORT mp4_status_t kx_mp4_recorder_get_statistics(const kx_mp4_recorder* recorder,
                                                          kx_mp4_recorder_statistics* statistics);

#ifdef __cplusplus
}
#endif

#endif  // KX_MP4_KX_MP4_C_H
