/// @file
/// Public types of kx_mp4: configuration, track descriptions, callbacks and status codes.
///
/// Everything here is plain data in the host's byte order. Pointers inside the records are
/// borrowed: the library never frees what a record points to, and unless a field says otherwise
/// it reads through them only during the call that was given the record.
#ifndef KX_MP4_KX_MP4_H
#define KX_MP4_KX_MP4_H

#include <cstddef>
#include <cstdint>

#include "kx_mp4/export.h"
#include "kx_mp4/io_callbacks.h"
#include "kx_mp4/statistics.h"
#include "kx_mp4/status.h"

/// The value that the caller's `init` callback hands back; passed to every other callback.
typedef void* kx_mp4_handle;

// The enumerations that a caller passes have a fixed type, so that a value they do not have is an
// argument that can be refused and not undefined behaviour.

/// Video codec of a track.
enum mp4_video_codec : int {
    MP4_MVC_UNKNOWN = -1,  ///< None; refused.
    MP4_MVC_H264 = 0,      ///< ITU-T H.264, Annex-B access units.
    MP4_MVC_HEVC = 1,      ///< ITU-T H.265, Annex-B access units.
    MP4_MVC_PRORES = 2,    ///< ProRes frames.
};

/// ProRes flavour; chooses the sample entry's four-character code.
enum mp4_prores_format : int {
    MP4_PRORES_422_proxy = 0,  ///< apco
    MP4_PRORES_422_LT = 1,     ///< apcs
    MP4_PRORES_422 = 2,        ///< apcn
    MP4_PRORES_422_HQ = 3,     ///< apch
    MP4_PRORES_4444 = 4,       ///< ap4h
    MP4_PRORES_4444_XQ = 5,    ///< ap4x
};

/// Scan mode. No operation reads it: files are always marked progressive.
enum mp4_video_scan_mode : int {
    MP4_SCAN_MODE_PROGRESSIVE = 1,  ///< Whole frames.
    MP4_SCAN_MODE_INTERLACED = 2,   ///< Two fields.
};

/// Audio codec of a track.
enum mp4_audio_codec : int {
    MP4_MAC_UNKNOWN = 0,  ///< None; refused.
    MP4_MAC_AAC = 1,      ///< Raw AAC frames; the description carries the configuration.
    MP4_MAC_ADTS = 2,     ///< AAC frames each behind a 7-byte ADTS header.
};

/// Closed-caption codec of a track.
enum mp4_subtitle_codec : int {
    MP4_SUBTITLE_CODEC_UNKNOWN = 0,  ///< None; packets are refused.
    MP4_SUBTITLE_CODEC_CC608 = 1,    ///< CEA-608 byte pairs.
    MP4_SUBTITLE_CODEC_CC708 = 2,    ///< CEA-708 caption distribution packets.
};

/// How the bytes of a metadata item are read.
typedef enum mp4_meta_data_type : int {
    MP4_META_DATA_TYPE_RAW = 0,     ///< `size` bytes, stored as they are.
    MP4_META_DATA_TYPE_STRING = 1,  ///< A zero-terminated UTF-8 string; `size` is not used.
    MP4_META_DATA_TYPE_INT = 21,    ///< A native 32-bit integer; `size` at least 4.
} mp4_meta_data_type_t;

/// Where the output goes.
enum mp4_io_mode : int {
    MP4_IO_FILE = 0,        ///< A file that the library opens.
    MP4_IO_DIRECT = 1,      ///< Unbuffered I/O; refused with #MP4_STATUS_UNSUPPORTED.
    MP4_IO_EXTERNAL = 2,    ///< The caller's callbacks, see #mp4_file_io_func_t.
    MP4_IO_SAFE_WRITE = 3,  ///< Header in front; refused with #MP4_STATUS_UNSUPPORTED.
};

/// H.264 parameter sets: single NAL units (ITU-T H.264, 7.3.1) without start code or length.
/// A size of 0 means that the set is not given, whatever its pointer.
typedef struct mp4_h264_parameter_set {
    const uint8_t* sps;  ///< Sequence parameter set, borrowed.
    int16_t sps_size;    ///< Bytes; at least 4 for a usable set.
    const uint8_t* pps;  ///< Picture parameter set, borrowed.
    int16_t pps_size;    ///< Bytes.
} mp4_h264_parameter_set_t;

/// HEVC parameter sets: single NAL units (ITU-T H.265, 7.3.1) without start code or length.
/// A size of 0 means that the set is not given, whatever its pointer.
typedef struct mp4_hevc_parameter_set {
    const uint8_t* sps;  ///< Sequence parameter set, borrowed.
    int16_t sps_size;    ///< Bytes.
    const uint8_t* pps;  ///< Picture parameter set, borrowed.
    int16_t pps_size;    ///< Bytes.
    const uint8_t* vps;  ///< Video parameter set, borrowed.
    int16_t vps_size;    ///< Bytes.
} mp4_hevc_parameter_set_t;

/// ProRes needs only its flavour.
typedef struct mp4_prores_parameter_set {
    mp4_prores_format format;  ///< Chooses the sample entry.
} mp4_prores_parameter_set_t;

/// Description of the video track.
typedef struct mp4_video_track_info {
    uint32_t timescale;       ///< Ticks per second of this track's timestamps; not 0.
    uint64_t frame_duration;  ///< Nominal duration of a frame in ticks; 0 when not known.
    mp4_video_codec codec;    ///< Selects the member of the union.
    uint16_t width;           ///< Pixels, not 0.
    uint16_t height;          ///< Pixels, not 0.
    union {
        mp4_h264_parameter_set_t h264;      ///< For #MP4_MVC_H264.
        mp4_hevc_parameter_set_t hevc;      ///< For #MP4_MVC_HEVC.
        mp4_prores_parameter_set_t prores;  ///< For #MP4_MVC_PRORES.
    };
} mp4_video_track_info_t;

/// Description of the audio track.
typedef struct mp4_audio_track_info {
    uint32_t timescale;       ///< Ticks per second of this track's timestamps; not 0.
    uint64_t frame_duration;  ///< Nominal duration of a frame in ticks; 0 when not known.
    mp4_audio_codec codec;    ///< Raw AAC or ADTS.
    /// Hz. 88200 and 96000 do not fit: their low 16 bits (22664, 30464) stand for them.
    uint16_t sample_rate;
    uint16_t channels;  ///< AAC channel configuration (ISO/IEC 14496-3, table 1.19).
    /// MPEG-4 audio object type: 2 is AAC LC, and 0 counts as AAC LC; 5 is HE-AAC and 29 HE-AAC
    /// version 2, of which `sample_rate` and `channels` are those of the decoded sound. 1, 3, 4 and
    /// 7 are written as they are, others are logged and written as AAC LC.
    uint8_t profile;
} mp4_audio_track_info_t;

/// Description of the caption track.
typedef struct mp4_subtitle_track_info {
    mp4_subtitle_codec codec;  ///< Selects the packet form that WriteSubtitleFrame expects.
    uint32_t timescale;        ///< Ticks per second of the packets' timestamps; 0 means 1000.
} mp4_subtitle_track_info_t;

/// Description of the timecode track.
typedef struct mp4_time_code_track_info {
    uint32_t timescale;       ///< Ticks per second.
    uint64_t frame_duration;  ///< Ticks per timecode frame.
    uint8_t frame_rate;       ///< Frames per second that the timecode counts (30 for 29.97).
    int32_t flags;            ///< QuickTime timecode flags: 1 drop frame, 2 24-hour maximum ...
} mp4_time_code_track_info_t;

/// The caller's output, for #MP4_IO_EXTERNAL. It must be seekable: sizes are patched in place.
/// Callbacks run on the thread that is inside the muxer's operation, one at a time, under the
/// muxer's lock; they must not call back into the muxer.
typedef struct mp4_file_io_func {
    /// Opens the output named by `path` (as given to Create) and stores a handle; false refuses.
    /// Block size and block count are 0.
    bool (*init)(kx_mp4_handle* handle, const wchar_t* path, uint32_t block_size,
                 uint32_t block_count);
    /// Closes the output; called once, the result is not used.
    bool (*uninit)(kx_mp4_handle handle);
    /// The current write position in bytes.
    uint64_t (*tell)(kx_mp4_handle handle);
    /// Moves the position; `whence` is SEEK_SET, SEEK_CUR or SEEK_END.
    void (*seek)(kx_mp4_handle handle, int64_t offset, int whence);
    /// Pushes what was written to storage.
    void (*flush)(kx_mp4_handle handle);
    /// Reads exactly `size` bytes; 1 is success, anything else a failure.
    int (*read)(kx_mp4_handle handle, void* buffer, uint32_t size);
    /// Writes exactly `size` bytes; 1 is success, anything else a failure (errno says why).
    int (*write)(kx_mp4_handle handle, const void* buffer, uint32_t size);
} mp4_file_io_func_t;

/// Configuration of #MP4_IO_DIRECT. Not read.
typedef struct mp4_dio_config {
    uint32_t block_size;     ///< Bytes.
    uint32_t buffer_blocks;  ///< Count.
} mp4_dio_config_t;

/// Configuration of #MP4_IO_SAFE_WRITE. Not read.
typedef struct mp4_safe_write_config {
    uint32_t block_size;         ///< Bytes.
    uint32_t buffer_blocks;      ///< Count.
    uint32_t max_duration;       ///< Seconds of room reserved in the header.
    uint32_t update_interval;    ///< Frames between two header updates.
    uint32_t gop_size;           ///< Frames per group of pictures.
    int32_t video_change_times;  ///< Expected changes of the frame duration.
} mp4_safe_write_config_t;

/// Option bits of mp4_config_t::flags. Bits without a name here are ignored.
enum mp4_config_flag : uint32_t {
    /// 64-bit time fields in the movie, video and audio headers. Without it each header takes them
    /// when its value needs them.
    MP4_FLAG_64BIT_TIME = 1,
    MP4_FLAG_64BIT_SIZE = 2,         ///< 64-bit media data size and chunk offsets (past 4 GiB).
    MP4_FLAG_SAFE_MODE = 8,          ///< Obsolete; only logs a warning.
    MP4_FLAG_REPAIR_INFO = 16,       ///< Keep a repair info file at the output path + ".info".
    MP4_FLAG_FAST_HEADER_WRITE = 32  ///< Honoured only together with #MP4_IO_DIRECT.
};

/// How CMp4Muxer::Create opens the output.
typedef struct mp4_config {
    uint32_t flags;                             ///< Bits of #mp4_config_flag.
    mp4_io_mode io_mode;                        ///< Where the output goes.
    mp4_dio_config_t direct_io_config;          ///< Not read.
    mp4_file_io_func_t* func;                   ///< For #MP4_IO_EXTERNAL; must outlive the
                                                ///< recording (until Close has returned).
    mp4_safe_write_config_t safe_write_config;  ///< Not read.
} mp4_config_t;

/// The kind of file, for CMp4Muxer::Create with a UTF-8 path.
enum mp4_container : int {
    MP4_CONTAINER_FROM_PATH = 0,  ///< A path that contains "mov" anywhere gives a QuickTime movie.
    MP4_CONTAINER_MP4 = 1,        ///< ISO base media file.
    MP4_CONTAINER_QUICKTIME = 2,  ///< QuickTime movie.
};

/// How much a log line matters.
typedef enum mp4_log_level : int {
    MP4_LOG_INFO = 0,     ///< Progress and timings.
    MP4_LOG_WARNING = 1,  ///< Something doubtful that the library went on from.
    MP4_LOG_ERROR = 2,    ///< A failure.
} mp4_log_level_t;

/// Takes one log line of a muxer, on the thread that is inside its operation. It must not throw,
/// nor call back into the muxer, nor wait for a thread that does; the strings live during the call.
///
/// @param user       As given to CMp4Muxer::SetLogCallback.
/// @param level      How much it matters.
/// @param source     The source file without extension, such as "src/MuxerState".
/// @param line       The line in it.
/// @param operation  The operation that logs, such as "Create".
/// @param text       The line without a newline, at most 1023 bytes.
typedef void (*mp4_log_callback_t)(void* user, mp4_log_level_t level, const char* source, int line,
                                   const char* operation, const char* text);

#endif  // KX_MP4_KX_MP4_H
