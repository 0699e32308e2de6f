/// @file
/// What a muxer tells of its recording. For C and C++.
#ifndef KX_MP4_KX_MP4_STATISTICS_H
#define KX_MP4_KX_MP4_STATISTICS_H

#include <stddef.h>
#include <stdint.h>

/// What CMp4Muxer::GetStatistics tells of a track.
typedef struct mp4_track_statistics {
    uint64_t samples;    ///< In the index.
    uint64_t bytes;      ///< Of these samples.
    int64_t first_time;  ///< Decode time of the first sample, ticks.
    int64_t last_time;   ///< Decode time of the last sample, ticks.
    uint32_t timescale;  ///< Ticks per second; 0 without samples.
    uint64_t dropped;    ///< Frames that were taken and are not in the file.
    uint64_t odd_times;  ///< Decode times that went back, or forward by more than an hour.
} mp4_track_statistics_t;

/// Entries of mp4_statistics_t::calls.
enum {
    MP4_CALL_DURATIONS = 32  ///< Entries of the histogram.
};

/// What CMp4Muxer::GetStatistics tells of the recording that runs, or of the last one.
typedef struct mp4_statistics {
    /// Bytes of this record as the caller knows it; set before the call. A later library fills in
    /// no more than that.
    size_t struct_size;
    mp4_track_statistics_t video;     ///< Video track.
    mp4_track_statistics_t audio;     ///< Audio track.
    mp4_track_statistics_t captions;  ///< Caption track.
    mp4_track_statistics_t timecode;  ///< Timecode track; its times are 0.
    uint64_t last_write_us;           ///< Microseconds that the last sample's write took.
    uint64_t longest_write_us;        ///< The longest of them.
    uint64_t last_push_us;            ///< Microseconds that the last push of the output or the
                                      ///< repair info file to the storage device took.
    uint64_t longest_push_us;         ///< The longest of them.
    /// How many calls of the frame writers took how long, waiting included: less than 1
    /// microsecond, 1, 2 to 3, 4 to 7, and so on by powers of two; the last entry also holds
    /// everything longer.
    uint64_t calls[MP4_CALL_DURATIONS];
    uint64_t index_bytes;         ///< As CMp4Muxer::GetMoovSize.
    uint32_t repair_info_active;  ///< 1 or 0, as CMp4Muxer::IsRepairInfoActive.
} mp4_statistics_t;

#endif  // KX_MP4_KX_MP4_STATISTICS_H
