/// @file
/// The recorder: CMp4Muxer behind a queue and a thread of its own, for applications whose frame
/// calls must never wait for a storage device.
///
/// A frame call copies the frame into a queue of fixed size and returns. Threads of the recorder
/// write it, cut the recording into segments at key frames, push what was written to the storage
/// device, and finish each file beside the recording.
///
/// @code
/// kx_mp4::RecorderOptions options;
/// options.pattern = "/videos/%Y-%m-%d/%H%M%S.mp4";
/// options.segment_ms = 60000;
/// CMp4Recorder recorder;
/// recorder.Start(options);
/// recorder.SetVideoTrack(&video);
/// recorder.SetAudioTrack(&audio);
/// recorder.WriteVideoFrame(...);  // from any thread
/// recorder.Stop(10000);
/// @endcode
#ifndef KX_MP4_RECORDER_H
#define KX_MP4_RECORDER_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include "kx_mp4/export.h"
#include "kx_mp4/kx_mp4.h"

class CMp4Muxer;

namespace kx_mp4 {

class RecorderState;

/// What a frame call does when the queue has no room.
enum class QueueFull {
    /// Drops the picture, and those after it up to the next one that can be decoded alone. An
    /// eighth of the queue is kept for sound, captions and timecode.
    kDrop,
    /// Waits for at most RecorderOptions::wait_ms, then drops as above.
    kWait,
};

/// What happens when the next step of room on the disk is refused.
enum class DiskFull {
    kStop,          ///< Finishes the file with all that was taken, and takes no more.
    kDeleteOldest,  ///< Deletes the oldest finished segments of this recording; then as above.
};

/// Why a segment began.
enum class SegmentReason {
    kStart,          ///< The first one.
    kTime,           ///< RecorderOptions::segment_ms.
    kSize,           ///< RecorderOptions::segment_bytes.
    kWallClock,      ///< RecorderOptions::segment_wall_clock_s.
    kCommand,        ///< CMp4Recorder::Cut.
    kParameterSets,  ///< The stream's parameter sets changed.
    kTrack,          ///< A track was declared while the recording ran.
    kPushFailed,     ///< The file before could not be pushed to the device.
    kWriteFailed,    ///< The file before could not be written.
};

/// Where a track of a segment lies on the recording's timeline: in the track's ticks, as the caller
/// gave the times, after pauses and jumps were taken out.
struct SegmentTrack {
    uint64_t samples = 0;  ///< In the file.
    uint64_t bytes = 0;    ///< Of these samples.
    int64_t first = 0;     ///< Decode time of the first.
    /// Where the last one ends: its decode time and what the file says that it lasts.
    int64_t end = 0;
};

/// A finished segment.
struct RecorderSegment {
    uint64_t number = 0;                           ///< Counted from 0.
    std::string path;                              ///< The file.
    SegmentReason reason = SegmentReason::kStart;  ///< Why it began.
    /// #MP4_STATUS_SUCCESS for a finished file. Otherwise the failure: with #MP4_FLAG_REPAIR_INFO
    /// the repair info file is still there, also when the file has its index but is not known to
    /// be on the device.
    mp4_status_t status = MP4_STATUS_SUCCESS;
    uint64_t bytes = 0;     ///< Of the file.
    std::time_t due = 0;    ///< The wall-clock time in the file's name.
    SegmentTrack video;     ///< The video track.
    SegmentTrack audio;     ///< The audio track.
    SegmentTrack captions;  ///< The caption track.
};

/// What RecorderOptions::on_event tells of.
enum class RecorderEventKind {
    kError,    ///< Something failed; RecorderEvent::status and text say what.
    kFull,     ///< The disk is full: no more frames are taken.
    kDeleted,  ///< A finished segment was deleted to make room.
};

/// One event; the strings live during the call.
struct RecorderEvent {
    RecorderEventKind kind;  ///< What happened.
    mp4_status_t status;     ///< The failure, or success.
    const char* path;        ///< The file it is about; empty when there is none.
    const char* text;        ///< One sentence.
};

/// How to record. The functions may be empty. They run on a thread of the recorder, one at a time
/// and in order, and may call the recorder, but not Stop and not the destructor; what they throw is
/// dropped.
struct RecorderOptions {
    /// Paths of the segments in UTF-8: strftime conversions (local time) stand for the time at
    /// which the segment is due, `%%i` or `%%04i` for its number. Folders have to be there. A name
    /// that exists gets "-2", "-3" ... before its extension; nothing is replaced.
    std::string pattern;
    /// Used instead of the pattern when not empty: number and time to path. Unlike the other
    /// functions it runs on the thread that opens the file.
    std::function<std::string(uint64_t number, std::time_t due)> name;
    mp4_container container = MP4_CONTAINER_FROM_PATH;  ///< The kind of file.
    uint32_t flags = MP4_FLAG_REPAIR_INFO;              ///< Bits of #mp4_config_flag.
    bool composition_offsets = true;                    ///< As CMp4Muxer::SetCompositionOffsets.
    bool start_times = true;                            ///< As CMp4Muxer::SetTimeline.
    uint32_t live_index_ms = 0;                         ///< As CMp4Muxer::SetLiveIndex.
    /// As CMp4Muxer::SetAllParameterSets; a set that was sent once is in all later files.
    bool all_parameter_sets = false;
    /// Asks the muxer of every file, after Create and before its tracks, for what is not among
    /// these options, such as CMp4Muxer::SetVideoColour; nothing else may be called. Unlike the
    /// other functions it runs on the thread that opens the file. What it answers is the status of
    /// the open.
    std::function<mp4_status_t(CMp4Muxer& muxer)> configure;

    size_t queue_bytes = size_t{8} << 20;        ///< Of the queue; at least 64 KiB.
    QueueFull on_queue_full = QueueFull::kDrop;  ///< What a call does then.
    uint32_t wait_ms = 1000;                     ///< Longest wait of a call, for QueueFull::kWait.

    // A segment ends at the first key frame that can be decoded alone after any of these limits; 0
    // is no limit. Without a video track it ends at any sound.
    uint64_t segment_ms = 0;            ///< Milliseconds of the leading track; at least 100.
    uint64_t segment_bytes = 0;         ///< Bytes of media; at least 64 KiB.
    uint32_t segment_wall_clock_s = 0;  ///< At whole multiples of it since local midnight.
    /// Asks the encoder for a key frame, once for each cut that waits for one.
    std::function<void()> request_key_frame;
    std::function<void(const RecorderSegment&)> on_segment;  ///< Told of every finished file.
    std::function<void(const RecorderEvent&)> on_event;      ///< Told of failures.

    uint32_t push_ms = 1000;  ///< From one push to the storage device to the next; 0 is none.
    /// Room on the disk is taken in steps of this many bytes, ahead of the media, with room for
    /// everything that is in the queue and for the index.
    uint64_t reserve_bytes = uint64_t{8} << 20;
    DiskFull on_disk_full = DiskFull::kStop;  ///< When a step is refused.
    /// A decode time that differs by more than this from what the clock says since the frame
    /// before, or goes back, is a jump of the caller's clock. Milliseconds.
    uint32_t jump_ms = 10000;
};

/// Frames that were handed over and are in no file, by reason.
struct RecorderDrops {
    uint64_t queue_full = 0;   ///< No room in the queue.
    uint64_t dependent = 0;    ///< Pictures that need one that was dropped.
    uint64_t before_key = 0;   ///< Pictures before one that a file can begin with.
    uint64_t paused = 0;       ///< Given while paused.
    uint64_t late_track = 0;   ///< Of a track that was declared late, before its first segment.
    uint64_t write_error = 0;  ///< While no file could be written.
    uint64_t refused = 0;      ///< By CMp4Muxer, whose status the next call answered with.
    uint64_t stopped = 0;      ///< Still in the queue when the limit of Stop passed.
};

/// Figures of the recording that runs, or of the last one.
struct RecorderStatistics {
    uint64_t queue_capacity = 0;     ///< Bytes.
    uint64_t queue_bytes = 0;        ///< In the queue now.
    uint64_t queue_peak = 0;         ///< The most there ever were.
    uint64_t frames_taken = 0;       ///< Into the queue.
    uint64_t frames_written = 0;     ///< Handed to a file.
    uint64_t bytes_written = 0;      ///< To files, index included.
    RecorderDrops drops;             ///< What is in no file.
    uint64_t segments_begun = 0;     ///< Files that got frames.
    uint64_t segments_finished = 0;  ///< Of them, with an index.
    uint64_t segments_deleted = 0;   ///< Of them, to make room.
    uint64_t longest_write_us = 0;   ///< Microseconds of one write to a file.
    uint64_t longest_push_us = 0;    ///< Microseconds of one push to the device.
    uint64_t unpushed_us = 0;        ///< How old the oldest frame is that a power cut could take.
    uint64_t clock_jumps = 0;        ///< Jumps of the caller's clock that were taken out.
    uint64_t clock_wraps = 0;        ///< Times that began again at 0 after 2^32 or 2^33 ticks.
    uint64_t late_frames = 0;        ///< Sound that came after the file of its time was finished.
};

/// What Stop did.
struct RecorderReport {
    mp4_status_t status = MP4_STATUS_SUCCESS;  ///< The first failure of the recording.
    bool drained = true;       ///< Whether everything in the queue reached a file in time.
    uint64_t frames_left = 0;  ///< In the queue when the limit passed.
    uint64_t segments = 0;     ///< Files that got frames.
};

}  // namespace kx_mp4

/// Records encoded frames without waiting for the storage device.
///
/// Any thread may call any operation at any time; only the destructor must be the last call. Frames
/// of one track are recorded in the order of their calls. Times of all tracks count from the same
/// moment: by them sound is divided at a cut. Statuses of every operation but Start:
/// #MP4_STATUS_FILE_NOT_OPEN when nothing is being recorded; after a full disk has ended the
/// recording #MP4_STATUS_NO_SPACE_LEFT. A failure of a file is answered once, by the frame call
/// after it, which has done its work all the same, and told by RecorderOptions::on_event.
class KX_MP4_EXPORT CMp4Recorder {
public:
    /// Throws std::bad_alloc when there is no memory for the object's state.
    CMp4Recorder();
    /// Stops, and waits for it without a limit.
    ~CMp4Recorder();
    CMp4Recorder(const CMp4Recorder&) = delete;
    CMp4Recorder& operator=(const CMp4Recorder&) = delete;

    /// Begins a recording: takes the memory of the queue, starts the threads and opens the first
    /// file.
    /// @return #MP4_STATUS_INVALID_PARAMETER for options out of range or without a name,
    ///         #MP4_STATUS_DEVICE_OR_RESOURCE_BUSY while one runs, #MP4_STATUS_NO_SPACE_LEFT
    ///         without room for the first step, or the status of a failed open.
    mp4_status_t Start(const kx_mp4::RecorderOptions& options);
    /// Takes no more frames, writes what is in the queue and finishes the files.
    ///
    /// @param limit_ms  Milliseconds to wait for it. When they pass, frames that are not being
    ///                  written are given up; the file is finished as soon as the device lets it,
    ///                  at the latest when the object is destroyed. 0 is no limit.
    kx_mp4::RecorderReport Stop(uint32_t limit_ms);

    /// As the operations of CMp4Muxer of these names; what they say holds for every segment. A
    /// track that is declared while the recording runs begins with a new segment.
    mp4_status_t SetVideoTrack(const mp4_video_track_info* pTrackInfo);
    /// Frames with lengths of four bytes only; #MP4_STATUS_UNSUPPORTED for others.
    mp4_status_t SetVideoTrack(const mp4_video_track_info* pTrackInfo, const uint8_t* record,
                               uint32_t recordSize);
    /// See SetVideoTrack.
    mp4_status_t SetAudioTrack(const mp4_audio_track_info_t* pTrackInfo);
    /// See SetVideoTrack.
    mp4_status_t SetSubtitleTrack(const mp4_subtitle_track_info_t* pTrackInfo);
    /// See SetVideoTrack.
    mp4_status_t SetTCMDTrack(const mp4_time_code_track_info_t* pTrackInfo);
    /// As CMp4Muxer::SetMetadata; goes into the segment that is open and all after it.
    mp4_status_t SetMetadata(const char* pKey, const char* pData, uint32_t size,
                             mp4_meta_data_type_t type, const char* key_namespace);

    /// Hands over a picture; copied.
    /// @return #MP4_STATUS_DEVICE_OR_RESOURCE_BUSY when it was dropped because the queue is full,
    ///         or needs one that was; #MP4_STATUS_INVALID_PARAMETER without bytes or for a frame
    ///         that is larger than three eighths of the queue; #MP4_STATUS_INVALID_VIDEO_STREAM for
    ///         one without NAL units; #MP4_STATUS_INVALID_VIDEO_TRACK without a declared track.
    ///         Success also while paused.
    mp4_status_t WriteVideoFrame(const uint8_t* buf, uint32_t size, uint64_t pts, uint64_t dts);
    /// Hands over an AAC frame; copied. Statuses as of WriteVideoFrame.
    mp4_status_t WriteAudioFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp);
    /// Hands over a caption packet; copied. Statuses as of WriteVideoFrame.
    mp4_status_t WriteSubtitleFrame(const uint8_t* buf, uint32_t size, uint64_t timestamp);
    /// The timecode of the next picture, a count of frames. Later segments go on from it.
    mp4_status_t WriteTimeCode(int nTimeCode);

    /// Begins a new segment at the next key frame that can be decoded alone.
    mp4_status_t Cut();
    /// Frames are counted and forgotten until Resume.
    mp4_status_t Pause();
    /// Goes on at the next such key frame, which follows the last picture without a gap.
    mp4_status_t Resume();

    /// Figures of this moment; waits for no I/O.
    kx_mp4::RecorderStatistics GetStatistics() const;

private:
    std::unique_ptr<kx_mp4::RecorderState> m_state;
};

#endif  // KX_MP4_RECORDER_H
