/// @file
/// One file of a recording, from its name to its index.
#ifndef KX_MP4_RECORDER_SEGMENT_H
#define KX_MP4_RECORDER_SEGMENT_H

#include <array>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "RecordingShare.h"
#include "Timeline.h"
#include "VideoLook.h"
#include "kx_mp4/Mp4Muxer.h"

namespace kx_mp4 {

/// A metadata item, copied.
struct MetadataItem {
    std::string key;
    std::string data;
    mp4_meta_data_type_t type = MP4_META_DATA_TYPE_RAW;
    std::string keySpace;  ///< Empty stands for the default.
};

/// The timecode and where on the timeline it was given.
struct TimecodePoint {
    int64_t count = 0;
    int64_t time = 0;  ///< Ticks of the leading track.
};

/// What every segment of a recording is declared with.
struct TrackSet {
    VideoDescription video;
    std::optional<mp4_audio_track_info_t> audio;
    std::optional<mp4_subtitle_track_info_t> captions;
    std::optional<mp4_time_code_track_info_t> timecode;
    std::optional<TimecodePoint> timecodePoint;
    std::vector<MetadataItem> metadata;

    bool Has(FrameKind kind) const;
    /// Ticks per second.
    uint32_t Timescale(FrameKind kind) const;
    /// Nominal length of a sample, ticks; 0 when it is not known.
    uint64_t UsualStep(FrameKind kind) const;
    FrameKind Leader() const { return video.IsDeclared() ? FrameKind::kVideo : FrameKind::kAudio; }
};

/// An open file. Used by one thread at a time.
class Segment {
public:
    /// Bytes that must find room behind the media before it is written: the queue, what lengths and
    /// tables make of it, and the index so far.
    static uint64_t Headroom(uint64_t queueBytes, uint64_t indexBytes);

    /// Opens the file of that number and takes its first room. Null with a status; nothing is left
    /// then.
    static std::unique_ptr<Segment> Open(RecordingShare& share, uint64_t number, std::time_t due,
                                         mp4_status_t& status);
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;
    ~Segment() = default;

    /// Declares the tracks; it begins at `start` of the leading track, and its own times count from
    /// the whole second at or before `origin`.
    mp4_status_t Begin(const TrackSet& tracks, SegmentReason reason, int64_t start, int64_t origin);
    /// Whether a frame of this time belongs to it and not to one before.
    bool Reaches(FrameKind kind, int64_t time) const { return time >= Start(kind); }
    int64_t Start(FrameKind kind) const { return m_start[static_cast<size_t>(kind)]; }
    bool Has(FrameKind kind) const { return m_has[static_cast<size_t>(kind)]; }
    /// Whether another frame and what may follow it will find room. An errno value.
    int Ensure(uint64_t frameBytes);
    /// Hands a frame to the muxer.
    mp4_status_t Write(FrameKind kind, const uint8_t* bytes, uint32_t size,
                       const FrameTimes& times);
    mp4_status_t SetMetadata(const MetadataItem& item);
    /// Whether the file can still be finished.
    bool IsWhole() { return m_muxer.IsOpen() && m_file->Error() == 0; }
    /// Whether the repair info file has failed since the last question.
    bool LostRepairInfo();
    /// Finishes the file, tells of it, and removes it when there is nothing in it.
    void Finish();

    SegmentFile& File() { return *m_file; }
    uint64_t MediaBytes() const { return m_mediaBytes; }
    bool IsBegun() const { return m_begun; }
    uint64_t Samples(FrameKind kind) const { return m_tracks[static_cast<size_t>(kind)].samples; }

private:
    /// A track of the file.
    struct Track {
        uint64_t samples = 0;
        int64_t first = 0;
        int64_t last = 0;
        int64_t step = 0;  // what the file says of the last sample
    };
    static constexpr size_t kKinds = 4;

    Segment(RecordingShare& share, std::shared_ptr<SegmentFile> file, uint64_t number,
            std::time_t due);
    mp4_status_t CreateMuxer();
    mp4_status_t DeclareVideo(const VideoDescription& video);
    mp4_status_t WriteTimecode(const TrackSet& tracks, int64_t start);
    void Note(FrameKind kind, uint32_t size, int64_t time);
    SegmentTrack Told(FrameKind kind, const mp4_track_statistics_t& written) const;
    void RemoveEmpty();

    RecordingShare& m_share;
    std::shared_ptr<SegmentFile> m_file;
    CMp4Muxer m_muxer;
    RecorderSegment m_info;
    bool m_begun = false;
    bool m_repairInfo = false;  // and it has not failed
    std::array<bool, kKinds> m_has{};
    std::array<int64_t, kKinds> m_start{};
    std::array<int64_t, kKinds> m_origin{};  // of the file's own times
    std::array<Track, kKinds> m_tracks{};
    uint64_t m_mediaBytes = 0;
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_SEGMENT_H
